// The table-programming engine: turns PI table entries into rows that the forwarding agents read,
// remembers the rows written, and puts failed ones back. This is its face; the folders beside it do
// the work.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "P4Runtime/companion/BatchStatus.h"
#include "P4Runtime/companion/HwStatusDir.h"
#include "P4Runtime/companion/P4HandleMgr.h"
#include "P4Runtime/companion/P4RtSystemConfig.h"
#include "P4Runtime/pi/BatchEntries.h"
#include "P4Runtime/pi/WriteGate.h"
#include "P4Runtime/pipeline/P4TableInfo.h"
#include "P4Runtime/table/records/EntryCache.h"
#include "P4Runtime/table/records/TableCache.h"
#include "P4Runtime/table/restore/RestoreSlice.h"
#include "P4Runtime/table/rows/EntryToWrite.h"
#include "PI/pi_tables.h"
#include "platform/lattice/Database.h"
#include "platform/vela/Entity.h"

namespace P4Runtime {

class ConstantEntries;
class EntryFailures;
class FormerEntries;
struct RowFields;

// The parts of the agent that table programming listens to and tells.
struct TableImplPeers {
  Vela::Ptr<BatchStatus> batchStatus;
  Vela::Ptr<P4RuntimeConfig::P4RtSystemStatus> systemStatus;
  Vela::Ptr<const HwStatusDir> hwStatusDir;  // may be null: there are no counters
};

// Threads: call with the activity lock held, on a PI server thread or the reactor.
// Errors: refusals are P4RuntimeExceptions, thrown before anything has changed. A full store is a
// P4RuntimeException with the entry's handle, whose handler puts the entry back.
// Lifetime: shared; owns its caches, and shares the model, the handles and the peers.
class TableImpl : public BatchEntries {
 public:
  // `database` may be null until the caches are mounted by initializedIs(true) (tests without
  // shared tables), and outlives this.
  TableImpl(Vela::Ptr<P4TableInfo> tableInfo, Vela::Ptr<P4HandleMgr> handleMgr,
            Lattice::Database* database, TableImplPeers peers);
  ~TableImpl() override;
  const char* typeName() const override { return "P4Runtime::TableImpl"; }

  VELA_READONLY_ATTRIBUTE(uint64_t, deviceId, 0)
  VELA_READONLY_ATTRIBUTE(bool, initialized, false)
  VELA_ATTRIBUTE(bool, tableSizeCheckEnabled, true)
  VELA_READONLY_ATTRIBUTE(bool, constTablesProgrammed, false)
  // Counts the requests to restore the entries once more; the state machine that restores observes
  // it.
  VELA_READONLY_ATTRIBUTE(uint32_t, restoreRequests, 0)
  VELA_READONLY_ATTRIBUTE(bool, restoring, false)  // between beginRestore() and its end

 public:
  P4TableInfo& tableInfo() const { return *tableInfo_; }
  P4HandleMgr& handleMgr() const { return *handleMgr_; }

  // Add an entry, or change it if it exists. All return its handle.
  EntryHandle tableEntryAdd(const MatchKey& key, const ActionData& action,
                            const DirectResources& direct);
  EntryHandle indirectTableEntryAdd(const MatchKey& key, const MemberOrGroup& target,
                                    const DirectResources& direct);
  EntryHandle tableEntryDeleteWithKey(const MatchKey& key);

  // Of a table entry that the agent keeps; nothing for any other handle.
  std::optional<TableCacheEntry> entryRecord(EntryHandle handle) const;

  // Has the processor fetch the memory of these entries, for writes that are to come.
  void loadEntries(std::span<const EntryHandle> handles) const;

  // Members and groups go by their handles: upper half 0 and 1, the lower half keys the row. All
  // return the entry handle that batch and pending operations go by.
  EntryHandle actionProfileMemberEntryAdd(uint32_t actProfId, const ActionData& action,
                                          MemberHandle handle);
  EntryHandle actionProfileMemberEntryDelete(uint32_t actProfId, MemberHandle handle);
  // Writes no row: a group has one from its first member on.
  EntryHandle actionProfileGroupEntryAdd(uint32_t actProfId, GroupHandle handle);
  EntryHandle actionProfileGroupEntryDelete(uint32_t actProfId, GroupHandle handle);
  // A member may be in a group several times.
  EntryHandle actionProfileGroupAddMbr(uint32_t actProfId, GroupHandle group, MemberHandle member);
  EntryHandle actionProfileGroupDelMbr(uint32_t actProfId, GroupHandle group, MemberHandle member);
  // For a change of the bytes beside the group's record alone; complete at once.
  EntryHandle actionProfileGroupTouch(uint32_t actProfId, GroupHandle handle);

  void addCachedEntry(const ResourceId& rid, EntryHandle handle, const pi_match_key_t& matchKey,
                      const pi_table_entry_t& tableEntry, uint64_t controllerMetadata);
  // Of a member; `memberId` is the controller's.
  void addCachedEntry(const ResourceId& rid, EntryHandle handle, const pi_action_data_t& action,
                      uint32_t memberId);
  // Of a group, whose members are read back from its row; `groupId` is the controller's.
  void addCachedEntry(const ResourceId& rid, EntryHandle handle, uint32_t groupId);
  // The bytes that the PI library keeps with an entry, member or group, and for which a record has
  // no room; empty removes them.
  void cachedMetadataIs(const ResourceId& rid, EntryHandle handle, std::string_view metadata);
  std::string cachedMetadata(const CacheKey& key) const;
  void deleteCachedEntry(const ResourceId& rid, EntryHandle handle);
  void updateCachedEntryState(EntryHandle handle, bool abort) override;
  void updateAllCachedEntryStates() override;
  void entryCacheDel(const ResourceId& rid, EntryHandle handle);
  void restoreTableEntryOnFailure(EntryHandle handle) override;
  void batchIsWhole() override;
  uint64_t lastPutBack() const override;

  // Gives all that survived a restart back to the PI library and to the handle manager: members,
  // then groups, then the entries that name them. See Restorer.
  void restoreCachedEntries();
  // The same in slices, between which others may run, but write nothing. Both throw when the
  // restore fails, which ends it. Failures that forwarding agents report wait for the end.
  void beginRestore();
  bool advanceRestore(RestoreSlice slice);  // true: all is back
  void abandonRestore();                    // another one must follow; nothing when none runs
  RestoreProgress restoreProgress() const;
  // See Restorer.
  FormerEntries& formerEntries();
  uint64_t pushOfEntries() const;
  bool hasNoEntries() const;
  void restoreActionMemberCachedEntries();
  void restoreActionGroupCachedEntries();
  void restoreTableCachedEntries();
  // Names the damaged records that were found since the last call, on standard error and in the
  // list of failures, with table and key as far as they can be told.
  std::vector<Brine::DamagedRecord> tellDamagedRecords();
  // Lets go of the caches; their records and the rows stay. Waits for the batch in progress, whose
  // outcome is still to be recorded. Writes are refused from then on.
  void cleanupCache();
  void mountCache();  // takes them again, or does not let them go after all
  // The PI library may know other entries than the store: a restore has failed, or the outcome of a
  // batch is not known. Nothing is written until a restore has succeeded, which
  // revertCriticalState() asks for.
  bool restoreNeeded() const;
  void restoreNeededIs(bool needed) override;
  void restoreIsNext();  // nothing is in doubt, but nothing is written before it
  void entriesStand();   // the server has them all, once it has the constant ones
  // The caches were let go: their records cannot be told.
  bool cacheLetGo() const;

  void assignDevice(uint64_t deviceId) override { deviceIdIs(deviceId); }
  void clearPendingOperations() override;
  size_t numPendingEntries() const override;
  bool anyPutBack() const override;
  // Commits all that was put back. When the store cannot, the critical state begins: the tables
  // then hold the failed entries, until revertCriticalState() can put them back.
  void commitPutBack() override;
  // Commits all writes outside a batch: restored and constant entries. Throws std::runtime_error
  // with the reason when the store cannot.
  void commitOrThrow();

  void validateKeySize(size_t bytes) const;
  void validateActionSize(size_t bytes) const;
  void validateKeyAndActionSize(size_t keyBytes, size_t actionBytes) const;
  // Refuses a new entry of a table that holds exactly as many rows as the P4Info says.
  void maybeCheckTableSizeLimit(const ResourceId& rid, EntryHandle handle) const;
  // Appends the action-selecting value and the action's fields.
  void extractActionFields(const ResourceId& tableRid, const ActionData& action, RowFields& fields);

  void triggerCriticalState();
  // Throws Vela::Exception, and the state stays, when entries that failed can still not be put
  // back. Where a restore is needed, asks for it first.
  void revertCriticalState();

  // Null until the caches are mounted.
  TableCache* tableCache() const;
  ActionProfileMemberCache* memberCache() const;
  ActionProfileGroupCache* groupCache() const;

  // A report that no batch was waiting for: keeps a failure, and forgets one that has been mended.
  // Before the entries are restored, failures wait for that.
  void handleStrayReport(const Lattice::Report& report);
  // A forwarding agent has left; returns the number of its failures, which go with it.
  size_t forgetReportsOf(uint64_t subscriber);
  // Every forwarding agent has taken a snapshot that shows `sequence`.
  void handleInStep(uint64_t sequence);
  // Forwarding agents have programmed all changes up to `sequence`, but for those reported failed.
  void handleProgrammed(uint64_t sequence);
  // The failures that forwarding agents reported when no batch was waiting.
  const Vela::Ptr<EntryFailures>& failures() const { return failures_; }
  // The entries that came with the pipeline.
  ConstantEntries& constantEntries();

 private:
  struct Rooms;

  void publishOperations();
  void handleInitialized();
  void doLetGoOfCache();
  void judgeReport(const Lattice::Report& report);
  template <typename Step>
  void trackRestore(Step step);
  void handleConstTablesProgrammed();

  const Vela::Ptr<P4TableInfo> tableInfo_;
  const Vela::Ptr<P4HandleMgr> handleMgr_;
  Lattice::Database* const database_;
  const TableImplPeers peers_;
  const Vela::Ptr<EntryFailures> failures_;
  const std::unique_ptr<Rooms> rooms_;
  Vela::Observation initializedChange_;
  Vela::Observation constTablesChange_;
  WriteGate::Closer cachesLetGo_{"the agent is disabled"};
};

Vela::Ptr<TableImpl> tableImplFactory(Vela::Ptr<P4TableInfo> tableInfo,
                                      Vela::Ptr<P4HandleMgr> handleMgr, Lattice::Database* database,
                                      TableImplPeers peers);

// Of the process's context, which must have been set; null until the agent has filled it in.
TableImpl* TheTableImpl();

}  // namespace P4Runtime
