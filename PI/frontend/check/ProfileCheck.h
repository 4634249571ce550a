// An action profile member or group of an update, checked against the P4Info and encoded for the
// target; and the checks that groups share with action sets.
#pragma once

#include "PI/frontend/check/CheckedUpdate.h"

namespace pi::fe::proto {

// The target holds at most these repeats of members in one group.
inline constexpr uint64_t kMaxRepeats = 2048;

// Both leave type and hash to the caller, and throw a Refusal.
CheckedUpdate checkedMember(const P4InfoIndex& index, const p4::v1::ActionProfileMember& given,
                            p4::v1::Update::Type type);
CheckedUpdate checkedGroup(const P4InfoIndex& index, const p4::v1::ActionProfileGroup& given,
                           p4::v1::Update::Type type);

// The sums over the elements of a group or action set.
struct GroupWeight {
  uint64_t members = 0;
  uint64_t weights = 0;  // one each where weights are disallowed
  uint64_t size(const ProfilePlan& profile) const {
    return profile.countsMembers ? members : weights;
  }
};

// Where an element stands, for messages: "table ingress.wcmp", ": element 3".
struct ElementText {
  const std::string& owner;
  const char* kind;  // "member", "element"
  uint64_t number;
};

// Throws a Refusal (INVALID_ARGUMENT).
void checkWeight(const ProfilePlan& profile, const ElementText& text, int32_t weight);
void checkWatch(const ProfilePlan& profile, const ElementText& text, int32_t watch,
                const std::string& port);

// As the port is kept and read back: a number in its shortest form, or a string as it was given.
bool isPortCanonical(const ProfilePlan& profile, const std::string& port);
void canonicalPortIs(const ProfilePlan& profile, std::string* port);

// Throws a Refusal (RESOURCE_EXHAUSTED) when the target cannot hold so many repeats.
void checkRepeats(const std::string& owner, const GroupWeight& weight);

}  // namespace pi::fe::proto
