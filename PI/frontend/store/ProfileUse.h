// The use of each action profile: the users of its members and groups, and the room taken.
#pragma once

#include <absl/container/flat_hash_map.h>

#include "PI/frontend/model/Plans.h"
#include "PI/frontend/store/ProfileObjects.h"

namespace pi::fe::proto {

// How much of the profile's size a member, a group, or an entry with an action set takes up; 0 for
// everything else.
uint64_t sizeTaken(const ProfilePlan& profile, const Entry& entry);

// Counts committed objects. Used by the Write in progress alone, or by the thread that restores.
class ProfileUse {
 public:
  struct Users {
    uint32_t groups = 0;
    uint32_t entries = 0;
    bool any() const { return groups != 0 || entries != 0; }
  };
  struct Total {
    uint64_t size = 0;        // in the profile's own unit
    uint64_t objects = 0;     // members and groups of controllers
    uint64_t actionSets = 0;  // entries that have one
  };

  Users users(const ObjectId& object) const;
  Total total(uint32_t profileId) const;

  // Counts that `now` took the place of `former`: members, groups, or entries of a table of the
  // profile. Null: no entry.
  void countChange(const ProfilePlan& profile, const Entry* former, const Entry* now);

 private:
  void doCount(const ProfilePlan& profile, const Entry& entry, int by);

  absl::flat_hash_map<ObjectId, Users> users_;
  absl::flat_hash_map<uint32_t, Total> totals_;
};

}  // namespace pi::fe::proto
