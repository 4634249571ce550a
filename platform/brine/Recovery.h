// What the writer finds when it opens a store: which slots count, and which a writer that was
// killed left behind.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "platform/brine/ChangeLog.h"
#include "platform/brine/KeyIndex.h"
#include "platform/brine/SlotSpace.h"
#include "platform/brine/StoreFile.h"

namespace Brine {

// Whether slot and sizes make sense and the checksum is right. `begin` is not looked at.
bool isSound(const StoreFile& file, Ref ref, size_t slotSize, uint32_t table);
// The slot's record as it is; call for a sound slot.
Record recordIn(const StoreFile& file, Ref ref);
// Whether the slot's record counts after the commit of `sequence`. Nothing for damaged words.
std::optional<bool> counts(const SlotHead& slot, Ref ref, uint64_t sequence);

// Slots that are no records: of former versions, of changes that were not committed, and damaged.
struct DeadSlot {
  Ref ref;
  uint64_t end;
};
struct FormerSlots {
  std::vector<DeadSlot> dead;
  std::vector<Ref> open;
  uint64_t damagedSum = 0;     // of damaged records
  bool anyUnreadable = false;  // a damaged slot tells not even whether it has a record
};

// Looks at all slots of a table: takes back the ends that were not committed, and enters the
// records into the index. `damage` is called with each slot that makes no sense, which stays as it
// is. Returns the records' sum.
uint64_t recoverTable(StoreFile& file, SlotSpace& slots, uint32_t table, KeyIndex& index,
                      FormerSlots& former, const std::function<void(Ref)>& damage);

}  // namespace Brine
