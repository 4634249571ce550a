// After a restart: gives the surviving objects back to the handle manager, the tables and the PI
// library.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "P4Runtime/pipeline/FormerEntries.h"
#include "P4Runtime/table/restore/ConstantEntries.h"
#include "P4Runtime/table/restore/DamagedRecords.h"
#include "P4Runtime/table/restore/RestoreCounts.h"
#include "P4Runtime/table/restore/RestoreSlice.h"
#include "P4Runtime/table/restore/RestoreTools.h"
#include "P4Runtime/table/restore/StandingTables.h"

namespace P4Runtime {

// Call with the activity lock held, outside a batch.
class Restorer : public FormerEntries {
 public:
  explicit Restorer(const RestoreTools& tools);
  ~Restorer() override;

  // A restore of all objects, in slices: members, then groups, then the entries that name them.
  // Rows that are as they were are not written again. Records that the pipeline is known to have
  // no place for are removed in the last slice and listed in the failures; so are rows that no
  // entry stands for. Anything else that goes wrong is thrown, ends the restore, and nothing more
  // is removed. The changes of each slice are committed when it returns. Between two of them
  // nothing else may write rows and records, and the pipeline must stay: else abandon().
  void begin(uint64_t deviceId);     // in place of one that runs
  bool advance(RestoreSlice slice);  // true: it is done. Call while it runs
  void abandon();  // the next restore finds every entry there; nothing when none runs
  // The front end has taken all entries back. Until there is a doubt about them, the next restore
  // leaves out the tables that stand as they do now.
  void entriesStand() { standing_.remember(); }
  void doubtEntries() { standing_.forget(); }
  bool isRunning() const { return run_ != nullptr; }
  RestoreProgress progress() const;

  // One pass each; nothing without caches.
  void restoreMembers(uint64_t deviceId);
  void restoreGroups(uint64_t deviceId);
  void restoreEntries(uint64_t deviceId);

  bool areOf(uint64_t push) const override;
  void setAside() override;
  void forget(uint64_t push) override;
  void putBack() override;
  uint64_t pushOfEntries() const;  // 0: to none
  bool isEmpty() const { return !tools_.records.isMounted() || tools_.records.isEmpty(); }

  // While a restore runs nothing is told: its end does.
  std::vector<Brine::DamagedRecord> tellDamagedRecords();
  ConstantEntries& constantEntries() { return constantEntries_; }

 private:
  struct Run;
  struct AsideRow {
    std::string table;
    std::string definition;  // of the table's type
    Lattice::Row row;
    uint64_t handle;
    std::string attachment;
  };
  using Step = bool (Restorer::*)(RestoreSlice& slice);

  void requireReady() const;
  std::vector<uint32_t> keptTables(uint64_t deviceId);
  bool runSteps(RestoreSlice& slice);
  bool doMembers(RestoreSlice& slice);
  bool doGroups(RestoreSlice& slice);
  bool doEntries(RestoreSlice& slice);
  bool doRewrite(RestoreSlice& slice);
  bool doSearchOrphans(RestoreSlice& slice);
  bool doFinish(RestoreSlice& slice);

  const RestoreTools tools_;
  StandingTables standing_{tools_.tableInfo};
  ConstantEntries constantEntries_{tools_};
  DamagedRecords damaged_{tools_};
  std::unique_ptr<Run> run_;     // null: none runs
  std::vector<AsideRow> aside_;  // until they are put back or forgotten
};

}  // namespace P4Runtime
