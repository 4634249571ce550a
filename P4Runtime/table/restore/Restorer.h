// After a restart: gives the surviving objects back to the handle manager, the tables and the PI
// library.
#pragma once

#include <string>
#include <vector>

#include "P4Runtime/table/restore/ConstantEntries.h"
#include "P4Runtime/table/restore/DamagedRecords.h"
#include "P4Runtime/table/restore/RestoreCounts.h"
#include "P4Runtime/table/restore/RestoreTools.h"

namespace P4Runtime {

// Call with the activity lock held, outside a batch.
class Restorer {
 public:
  explicit Restorer(const RestoreTools& tools) : tools_(tools) {}

  // Members, then groups, then the entries that name them. Rows that are as they were are not
  // written again. Records that the pipeline is known to have no place for are removed and listed
  // in the failures; so are rows that no entry stands for. Anything else that goes wrong is thrown,
  // and nothing more is removed.
  void restoreAll(uint64_t deviceId);
  // One pass each; nothing without caches.
  void restoreMembers(uint64_t deviceId);
  void restoreGroups(uint64_t deviceId);
  void restoreEntries(uint64_t deviceId);

  // Removes all that is kept, unless it belongs to the push of that number already. Call while no
  // table has an interface. Throws when the store cannot; what is left goes the next time.
  void entriesBelongTo(uint64_t push);
  uint64_t pushOfEntries() const;  // 0: to none
  bool isEmpty() const { return !tools_.records.isMounted() || tools_.records.isEmpty(); }

  std::vector<Brine::DamagedRecord> tellDamagedRecords() { return damaged_.tell(); }
  ConstantEntries& constantEntries() { return constantEntries_; }

 private:
  void removeWhatDoesNotFit();

  const RestoreTools tools_;
  ConstantEntries constantEntries_{tools_};
  DamagedRecords damaged_{tools_};
  RestoreCounts restored_;
};

}  // namespace P4Runtime
