#include "PI/frontend/check/ProfileCheck.h"

#include <absl/container/flat_hash_set.h>

#include <algorithm>
#include <cstring>

#include "PI/frontend/base/ByteString.h"
#include "PI/frontend/base/Lenience.h"
#include "PI/frontend/base/Refusal.h"
#include "PI/frontend/store/ActionCodec.h"
#include "PI/frontend/store/ProfileObjects.h"
#include "PI/frontend/store/WatchPorts.h"

namespace pi::fe::proto {

using p4::v1::ActionProfileGroup;

namespace {

constexpr uint32_t kPortBits = 32;
constexpr uint32_t kFirstReservedPort = 0xffffff00;
constexpr uint32_t kRecirculationPort = 0xfffffffa;
constexpr uint32_t kCpuPort = 0xfffffffd;

// Of the reserved numbers two name ports that every switch has.
bool isReserved(std::string_view port) {
  uint32_t number = 0;
  for (const char byte : significant(port)) number = number << 8 | static_cast<uint8_t>(byte);
  return number >= kFirstReservedPort && number != kRecirculationPort && number != kCpuPort;
}

// A MODIFY must repeat the size of the INSERT; that check needs the committed group.
void checkMaxSize(const ProfilePlan& profile, const std::string& text, int32_t maxSize,
                  p4::v1::Update::Type type) {
  if (maxSize < 0) {
    refuse(code::invalidArgument, text, ": max_size is ", maxSize, "; it must not be negative");
  }
  const auto given = static_cast<uint32_t>(maxSize);
  if (profile.maxGroupSize > 0 && given > profile.maxGroupSize) {
    refuse(code::invalidArgument, text, ": max_size is ", given,
           "; the program's max_group_size is ", profile.maxGroupSize);
  }
  if (given > kMaxRepeats && type == p4::v1::Update::INSERT) {
    refuse(code::resourceExhausted, text, ": max_size is ", given, "; groups of more than ",
           kMaxRepeats, " are not supported");
  }
}

GroupWeight checkedMembers(const ProfilePlan& profile, const std::string& text,
                           const ActionProfileGroup& given, const Naming& naming) {
  absl::flat_hash_set<uint32_t> seen;
  GroupWeight weight;
  for (const auto& member : given.members()) {
    const ElementText at{text, "member", member.member_id()};
    if (member.member_id() == 0) {
      refuse(code::invalidArgument, text, ": the id of a member is 0");
    }
    if (!seen.insert(member.member_id()).second) {
      refuse(code::invalidArgument, text, ": member ", member.member_id(),
             " is listed twice; use its weight instead");
    }
    checkWeight(profile, at, member.weight());
    checkWatch(profile, at, member.watch(), member.watch_port());
    if (profile.ports != nullptr) watchedPort(profile, member, naming);
    weight.weights += repeats(member.weight());
    ++weight.members;
  }
  return weight;
}

void checkSize(const ProfilePlan& profile, const std::string& text, int32_t maxSize,
               const GroupWeight& weight) {
  const uint64_t limit = maxSize > 0 ? static_cast<uint64_t>(maxSize) : profile.maxGroupSize;
  const uint64_t size = weight.size(profile);
  if (limit > 0 && size > limit) {
    refuse(code::resourceExhausted, text, ": its ", profile.countsMembers ? "members" : "weights",
           " add up to ", size, "; it may have ", limit);
  }
  checkRepeats(text, weight);
}

std::string textOf(const ElementText& text) {
  return absl::StrCat(text.owner, ": ", text.kind, " ", text.number);
}

std::string canonicalBytes(const ProfilePlan& profile, const ActionProfileGroup& given) {
  const bool canonical = std::all_of(
      given.members().begin(), given.members().end(),
      [&](const auto& member) { return isPortCanonical(profile, member.watch_port()); });
  if (canonical) return given.SerializeAsString();
  ActionProfileGroup group = given;
  for (auto& member : *group.mutable_members()) {
    if (member.has_watch_port()) canonicalPortIs(profile, member.mutable_watch_port());
  }
  return group.SerializeAsString();
}

}  // namespace

void checkWeight(const ProfilePlan& profile, const ElementText& text, int32_t weight) {
  if (profile.weightsDisallowed) {
    if (weight == 0) return;
    refuse(code::invalidArgument, textOf(text), " has the weight ", weight, "; action profile ",
           profile.name, " takes no weights: leave it 0");
  }
  if (weight < 0 || (weight == 0 && !zeroWeightsAllowed())) {
    refuse(code::invalidArgument, textOf(text), " has the weight ", weight, "; it must be above 0");
  }
  const uint32_t max = profile.maxMemberWeight;
  if (max > 0 && static_cast<uint32_t>(weight) > max) {
    refuse(code::invalidArgument, textOf(text), " has the weight ", weight, "; action profile ",
           profile.name, " takes at most ", max);
  }
}

// The forwarding plane alone knows which ports exist; the form of the port is checked here.
void checkWatch(const ProfilePlan& profile, const ElementText& text, int32_t watch,
                const std::string& port) {
  if (watch < 0) {
    refuse(code::invalidArgument, textOf(text), " has the watch ", watch,
           ", which is no port number; it must not be negative");
  }
  if (port.empty() || profile.portsAreStrings) return;
  if (!fits(port, kPortBits) || significant(port).empty()) {
    refuse(code::invalidArgument, textOf(text), " has the watch_port ", hexText(port),
           ", which is no port number; leave it empty to watch none");
  }
  if (!isReserved(port)) return;
  refuse(code::invalidArgument, textOf(text), " has the watch_port ", hexText(port),
         ", which no port of a switch has: the number is reserved");
}

bool isPortCanonical(const ProfilePlan& profile, const std::string& port) {
  return profile.portsAreStrings || isShortest(port);
}

void canonicalPortIs(const ProfilePlan& profile, std::string* port) {
  if (!profile.portsAreStrings) shorten(port);
}

void checkRepeats(const std::string& owner, const GroupWeight& weight) {
  if (weight.weights <= kMaxRepeats) return;
  refuse(code::resourceExhausted, owner, ": its weights add up to ", weight.weights, "; more than ",
         kMaxRepeats, " in one group are not supported");
}

CheckedUpdate checkedMember(const P4InfoIndex& index, const p4::v1::ActionProfileMember& given,
                            p4::v1::Update::Type type) {
  CheckedUpdate result;
  result.subject = CheckedUpdate::Subject::member;
  const ProfilePlan& profile = checkedProfile(index, given.action_profile_id());
  result.profile = &profile;
  const ObjectId id{profile.id, false, given.member_id()};
  if (id.id == 0) {
    refuse(code::invalidArgument, "action profile ", profile.name, ": the member id is 0");
  }
  if (type == p4::v1::Update::DELETE) {
    result.slot.entry = makeObject(id, 0);
    return result;
  }
  if (!given.has_action()) {
    refuse(code::invalidArgument, "action profile ", profile.name, ": ", objectText(id),
           " needs an action");
  }
  const ActionPlan& action = checkedAction(profile, given.action().action_id());
  result.slot.entry = makeObject(id, action.dataBytes);
  result.slot.entry->actionId = action.id;
  encodeActionData(profile, action, given.action(), result.slot.entry->actionData(),
                   {&result.names, true});
  return result;
}

CheckedUpdate checkedGroup(const P4InfoIndex& index, const ActionProfileGroup& given,
                           p4::v1::Update::Type type) {
  CheckedUpdate result;
  result.subject = CheckedUpdate::Subject::group;
  const ProfilePlan& profile = checkedProfile(index, given.action_profile_id());
  result.profile = &profile;
  const ObjectId id{profile.id, true, given.group_id()};
  const std::string text = absl::StrCat("action profile ", profile.name, ": ", objectText(id));
  if (!profile.withSelector) {
    refuse(code::invalidArgument, text, ": the profile has no selector, and so no groups");
  }
  if (id.id == 0) refuse(code::invalidArgument, text, ": the group id is 0");
  if (type == p4::v1::Update::DELETE) {
    result.slot.entry = makeObject(id, 0);
    return result;
  }
  checkMaxSize(profile, text, given.max_size(), type);
  checkSize(profile, text, given.max_size(),
            checkedMembers(profile, text, given, {&result.names, true}));
  const std::string bytes = canonicalBytes(profile, given);
  result.slot.entry = makeObject(id, bytes.size());
  std::memcpy(result.slot.entry->actionData(), bytes.data(), bytes.size());
  return result;
}

}  // namespace pi::fe::proto
