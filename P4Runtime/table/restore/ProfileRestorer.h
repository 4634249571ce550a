// Gives the members and groups that survived in the caches back to the handle manager, the tables
// and the PI library.
#pragma once

#include <string>
#include <vector>

#include "P4Runtime/table/records/CacheWalk.h"
#include "P4Runtime/table/restore/Obstacle.h"
#include "P4Runtime/table/restore/RestoreCounts.h"
#include "P4Runtime/table/restore/RestoreSlice.h"
#include "P4Runtime/table/restore/RestoreTools.h"
#include "PI/pi_base.h"

namespace P4Runtime {

// One pass over the member cache, and then one over the group cache, in slices. Call with the
// activity lock held, while the caches are mounted. A pass that is given up has removed no record.
class ProfileRestorer {
 public:
  ProfileRestorer(const RestoreTools& tools, uint64_t deviceId);

  // Add to the counts, and return false while there is more to do in later slices. Unusable records
  // are removed with their rows, once the pass is through.
  bool restoreMembers(RestoreSlice& slice, RestoreCounts& counts);
  bool restoreGroups(RestoreSlice& slice, RestoreCounts& counts);

 private:
  using Member = ActionProfileMemberCacheEntry;
  using Group = ActionProfileGroupCacheEntry;

  template <typename Record>
  struct Pass {
    CacheWalk<Record> walk;
    size_t back = 0;
    std::vector<std::string> unusable;  // stored keys
    std::vector<std::string> reasons;
  };

  template <typename Record>
  bool advance(Pass<Record>& pass, RestoreSlice& slice);
  template <typename Record>
  size_t finish(Pass<Record>& pass, EntryCache<Record>& cache, RestoreCounts& counts);
  std::string text(const CacheKey& key, const Member& record) const;
  std::string text(const CacheKey& key, const Group& record) const;
  std::string text(const char* what, const CacheKey& key, uint32_t controllersId) const;

  Obstacle restore(const Member& record);
  Obstacle restore(const Group& record);
  bool bindHandle(const Member& record);
  bool bindHandle(const Group& record);
  Group withMembersThere(const Group& stored);
  void program(const Member& record);
  void program(const Group& record);
  pi_status_t handBack(const Member& record);
  pi_status_t handBack(const Group& record);
  template <typename Record>
  Obstacle programAndHandBack(EntryHandle handle, const Record& record);
  void removeRow(EntryHandle handle);

  const RestoreTools& tools_;
  const uint64_t deviceId_;
  const pi_p4info_t* p4info_;
  Pass<Member> members_;
  Pass<Group> groups_;
};

}  // namespace P4Runtime
