// The names that committed entries and members hold.
#pragma once

#include <absl/container/flat_hash_map.h>

#include "PI/frontend/model/Plans.h"
#include "PI/frontend/names/NamePins.h"
#include "PI/frontend/store/Entry.h"

namespace pi::fe::proto {

// The entry holds its names from now on. `user`: its table, or the profile of a member.
void holdNames(const ActionUser& user, const TablePlan* table, const Entry& entry);
// The same for many entries, which hold their names once all are added.
class NameHolders {
 public:
  void add(const TablePlan& table, const Entry& entry);
  void holdAll();

 private:
  absl::flat_hash_map<Dictionary*, absl::flat_hash_map<uint32_t, uint32_t>> holders_;  // by number
};

// The entry holds them no more; its holds are the pins'.
void takeNames(const ActionUser& user, const TablePlan* table, const Entry& entry, NamePins* pins);

}  // namespace pi::fe::proto
