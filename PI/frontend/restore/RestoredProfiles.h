// Members and groups that the target hands back after a restart, until the entries that point at
// them have come, too: the target knows handles only.
#pragma once

#include <span>

#include "PI/frontend/model/P4InfoIndex.h"
#include "PI/frontend/restore/RestoredSet.h"
#include "PI/frontend/store/EntryStore.h"
#include "PI/frontend/store/ProfileUse.h"
#include "PI/frontend/target/TargetSession.h"
#include "PI/int/pi_int.h"

namespace pi::fe::proto {

// Used by the thread that restores. Members come before groups, groups before entries. Objects
// that controllers named go into the store at once; hidden ones wait for their entry.
class RestoredProfiles {
 public:
  RestoredProfiles(const P4InfoIndex& index, EntryStore& store, ProfileUse& use)
      : index_(index), store_(store), use_(use) {}

  // Controller's id 0: hidden. INVALID_ENTRY_TYPE when it does not fit the profile, or when a
  // part of it is missing.
  pi_status_t memberIs(uint32_t profileId, const pi_action_data_t* action, uint32_t controllerId,
                       uint64_t handle);
  // `bytes` as they were given to the target with the group. When they do not agree with the
  // members, the members count.
  pi_status_t groupIs(uint32_t profileId, uint32_t controllerId, std::span<const uint64_t> members,
                      uint64_t handle, std::string_view bytes);

  // The entry that a target's `unresolved` one stands for; null when the object it points at is
  // missing, or is hidden and belongs to another entry already.
  EntryPtr resolve(const TablePlan& table, const Entry& unresolved);

  // After the last entry: brings the rows of watch ports to the groups and sets, where they do not
  // agree. Takes the target's lock.
  void doMendWatchPorts(const TargetSession& session);

  // Deletes hidden members and groups that no entry claimed. Takes the target's lock.
  void doDeleteUnclaimed(const TargetSession& session);

 private:
  struct Member {
    EntryPtr object;  // id 0 when hidden
    bool claimed = false;
  };
  // A group or an entry with a set, one of whose members watches a port.
  struct Watching {
    const ProfilePlan* profile;
    const TablePlan* table;  // null: a group
    EntryPtr entry;
  };
  struct Group {
    uint32_t profileId = 0;
    uint32_t id = 0;  // 0 when hidden
    std::vector<uint64_t> members;
    std::string bytes;  // when hidden
    bool claimed = false;
  };

  bool areMembers(const ProfilePlan& profile, std::span<const uint64_t> members, bool hidden) const;
  std::string groupBytes(const ProfilePlan& profile, uint32_t id, std::span<const uint64_t> members,
                         std::string_view bytes) const;
  EntryPtr withActionSet(const TablePlan& table, const Entry& unresolved, Group* group);
  std::vector<HiddenMember> hiddenMembers(const Group& group) const;
  void maybeRememberWatching(const ProfilePlan& profile, const TablePlan* table,
                             const EntryPtr& entry);
  void reassign(const TablePlan& table, Entry* entry) const;
  void doMendWatchPorts(const TargetSession& session, const ProfilePlan& profile);

  const P4InfoIndex& index_;
  EntryStore& store_;
  ProfileUse& use_;
  absl::flat_hash_map<uint64_t, Member> members_;  // by handle
  absl::flat_hash_map<uint64_t, Group> groups_;    // by handle
  std::vector<Watching> watching_;
};

}  // namespace pi::fe::proto
