#include "P4Runtime/table/restore/Restorer.h"

#include <cstdio>
#include <iterator>
#include <stdexcept>

#include "P4Runtime/table/restore/EntryRestorer.h"
#include "P4Runtime/table/restore/OrphanedRows.h"
#include "P4Runtime/table/restore/ProfileRestorer.h"
#include "PI/pi_extensions.h"

namespace P4Runtime {

struct Restorer::Run {
  Run(const RestoreTools& tools, ConstantEntries& constantEntries, uint64_t deviceId,
      const std::vector<uint32_t>& kept)
      : profiles(tools, deviceId),
        entries(tools, constantEntries, deviceId, kept),
        orphans(tools) {}

  ProfileRestorer profiles;
  EntryRestorer entries;
  OrphanedRows orphans;
  RestoreCounts counts;
  size_t step = 0;
};

Restorer::Restorer(const RestoreTools& tools) : tools_(tools) {}
Restorer::~Restorer() = default;

void Restorer::begin(uint64_t deviceId) {
  run_ = nullptr;
  requireReady();
  constantEntries_.followPipeline();
  tools_.undo.commitOrThrow();  // the passes read committed records
  run_ = std::make_unique<Run>(tools_, constantEntries_, deviceId, keptTables(deviceId));
}

// The front end has its entries of these already.
std::vector<uint32_t> Restorer::keptTables(uint64_t deviceId) {
  std::vector<uint32_t> tables = standing_.ids();
  standing_.forget();  // until this restore is through
  size_t count = tables.size();
  if (count != 0) pi_restore_keep(deviceId, tables.data(), &count);
  tables.resize(count);
  return tables;
}

void Restorer::requireReady() const {
  // Without its tables every record would look unusable.
  if (tools_.tableInfo.tableInfoState() != P4TableInfoState::tableInfoReady) {
    throw std::runtime_error("the pipeline is not ready");
  }
  // Without the records every row would look like one that no entry stands for.
  if (!tools_.records.isMounted()) throw std::runtime_error("the agent is disabled");
}

bool Restorer::advance(RestoreSlice slice) try {
  requireReady();
  const bool isDone = runSteps(slice);
  tools_.undo.commitOrThrow();
  if (isDone) run_ = nullptr;
  return isDone;
} catch (...) {
  run_ = nullptr;
  throw;
}

bool Restorer::runSteps(RestoreSlice& slice) {
  static constexpr Step steps[] = {&Restorer::doMembers,       &Restorer::doGroups,
                                   &Restorer::doEntries,       &Restorer::doRewrite,
                                   &Restorer::doSearchOrphans, &Restorer::doFinish};
  const RestoreMode::Running running(tools_.mode);
  for (; run_->step < std::size(steps); ++run_->step) {
    if (!(this->*steps[run_->step])(slice)) return false;
  }
  return true;
}

bool Restorer::doMembers(RestoreSlice& slice) {
  return run_->profiles.restoreMembers(slice, run_->counts);
}
bool Restorer::doGroups(RestoreSlice& slice) {
  return run_->profiles.restoreGroups(slice, run_->counts);
}
bool Restorer::doEntries(RestoreSlice& slice) { return run_->entries.restore(slice); }
bool Restorer::doRewrite(RestoreSlice& slice) { return run_->entries.rewrite(slice); }
bool Restorer::doSearchOrphans(RestoreSlice& slice) { return run_->orphans.search(slice); }

// In one turn with the words about it.
bool Restorer::doFinish(RestoreSlice&) {
  RestoreCounts& counts = run_->counts;
  run_->entries.finish(counts);
  damaged_.removeAll(counts);
  counts.rows = run_->orphans.remove(run_->entries.bareRows());
  tools_.mode.rewriteDelAll();
  tools_.failures.notRestoredAre(counts.unusable);
  if (counts != RestoreCounts{}) std::fputs(toText(counts).c_str(), stderr);
  return true;
}

void Restorer::abandon() {
  if (isRunning()) doubtEntries();
  run_ = nullptr;
}

RestoreProgress Restorer::progress() const {
  return run_ ? run_->entries.progress() : RestoreProgress{};
}

std::vector<Brine::DamagedRecord> Restorer::tellDamagedRecords() {
  return isRunning() ? std::vector<Brine::DamagedRecord>() : damaged_.tell();
}

void Restorer::restoreMembers(uint64_t deviceId) {
  if (!tools_.records.isMounted()) return;
  const RestoreMode::Running running(tools_.mode);
  RestoreCounts counts;
  RestoreSlice slice;
  ProfileRestorer(tools_, deviceId).restoreMembers(slice, counts);
}

void Restorer::restoreGroups(uint64_t deviceId) {
  if (!tools_.records.isMounted()) return;
  const RestoreMode::Running running(tools_.mode);
  RestoreCounts counts;
  RestoreSlice slice;
  ProfileRestorer(tools_, deviceId).restoreGroups(slice, counts);
}

void Restorer::restoreEntries(uint64_t deviceId) {
  if (!tools_.records.isMounted()) return;
  const RestoreMode::Running running(tools_.mode);
  RestoreCounts counts;
  RestoreSlice slice;
  EntryRestorer entries(tools_, constantEntries_, deviceId, {});
  entries.restore(slice);
  entries.rewrite(slice);
  entries.finish(counts);
}

}  // namespace P4Runtime
