// Members and groups of action profiles.
#pragma once

#include <absl/container/flat_hash_map.h>
#include <absl/container/flat_hash_set.h>

#include <memory>
#include <optional>
#include <vector>

#include "p4/tables/Encoding.h"
#include "p4/tables/HandlePool.h"
#include "p4/tables/Sides.h"

namespace P4 {

// A member's share in a group.
struct GroupShare {
  uint32_t member = 0;  // id
  uint32_t weight = 1;
  std::optional<uint32_t> watchPort;
  bool operator==(const GroupShare&) const = default;
};

// One profile. Ids are the caller's. A weight of w makes w copies of a member, which are numbered
// in the order in which they come to be, each with the smallest free number; a group chooses among
// its copies in the order of these numbers, without those whose watched port is down. The writer's
// thread. All throw Refusal.
class ProfileStore {
 public:
  ProfileStore(const Program& program, uint32_t profile, Sides& sides);
  ~ProfileStore();

  void insertMember(uint32_t id, const ActionSpec& action);
  void modifyMember(uint32_t id, const ActionSpec& action);
  void removeMember(uint32_t id);
  void insertGroup(uint32_t id, const std::vector<GroupShare>& shares);
  void modifyGroup(uint32_t id, const std::vector<GroupShare>& shares);
  void removeGroup(uint32_t id);

  Outcome member(uint32_t id);                   // throws when there is none
  Outcome group(uint32_t id);                    // throws when there is none
  void use(const Outcome& outcome, int change);  // entries that point there

  // A one-shot action set: members and a group of no id, used by one entry.
  struct OneShotAction {
    ActionSpec action;
    uint32_t weight = 1;
    std::optional<uint32_t> watchPort;
  };
  Outcome insertOneShot(const std::vector<OneShotAction>& actions);
  void removeOneShot(const Outcome& outcome);
  bool isOneShot(const Outcome& outcome) const { return oneShots_.contains(outcome.group); }

  void portIs(uint32_t port, bool up);
  void committed() { retired_ = Retired(); }  // no packet sees anything removed

 private:
  struct Copies {
    std::vector<std::unique_ptr<Member>> members;
    ActionSpec action;
    uint32_t groups = 0;   // that hold it
    uint32_t entries = 0;  // that point to it
  };
  struct Held {
    std::unique_ptr<Group> group = std::make_unique<Group>();
    std::vector<GroupShare> shares;
    uint32_t entries = 0;
  };
  struct Share {
    const Member* member;
    std::optional<uint32_t> watchPort;
  };
  struct OneShot {
    std::unique_ptr<Group> group = std::make_unique<Group>();
    std::vector<std::unique_ptr<Member>> members;
    std::vector<Share> shares;
  };
  struct Retired {
    std::vector<std::unique_ptr<Member>> members;
    std::vector<std::unique_ptr<Group>> groups;
    std::vector<ActionData::Ptr> actions;
  };

  std::unique_ptr<Member> makeMember(const ActionSpec& action);
  void retire(std::unique_ptr<Member> member);
  Copies& copiesOf(uint32_t id);
  Held& heldOf(uint32_t id);
  void checkShares(const std::vector<GroupShare>& shares);
  void setShares(Held& held, const std::vector<GroupShare>& shares);
  void fitCopies(uint32_t member);
  void publish(Group& group, const std::vector<Share>& shares);
  void publish(Held& held);

  const Program& program_;
  uint32_t profile_;
  Sides& sides_;
  HandlePool handles_;
  absl::flat_hash_map<uint32_t, Copies> members_;
  absl::flat_hash_map<uint32_t, Held> groups_;
  absl::flat_hash_map<const Group*, OneShot> oneShots_;
  absl::flat_hash_map<const Member*, uint32_t> idOfMember_;  // of first copies
  absl::flat_hash_map<const Group*, uint32_t> idOfGroup_;
  absl::flat_hash_set<uint32_t> downPorts_;
  Retired retired_;
};

}  // namespace P4
