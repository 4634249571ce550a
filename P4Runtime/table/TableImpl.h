// The table-programming engine: turns PI table entries into rows that the forwarding agents read,
// remembers what it wrote, and puts back what failed.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <absl/container/flat_hash_set.h>
#include <absl/container/node_hash_map.h>

#include "P4Runtime/companion/ErrorCode.h"
#include "P4Runtime/companion/P4HandleMgr.h"
#include "P4Runtime/pi/BatchEntries.h"
#include "P4Runtime/pi/WriteGate.h"
#include "P4Runtime/pipeline/P4CounterMeters.h"
#include "P4Runtime/pipeline/P4TableInfo.h"
#include "P4Runtime/table/failures/EarlyReports.h"
#include "P4Runtime/table/Restoring.h"
#include "P4Runtime/table/records/TableCache.h"
#include "P4Runtime/table/restore/ConstantEntries.h"
#include "PI/pi_tables.h"
#include "platform/lattice/Database.h"
#include "platform/vela/Entity.h"

namespace P4Runtime {

class EntryFailures;
struct RowFields;

enum class PendingOperationType { entryAdd, entryDelete };

// One entry, member or group that the current batch has written: how to put it back should it fail.
struct PendingOperation {
  PendingOperationType type = PendingOperationType::entryAdd;
  bool awaited = false;  // by the batch: the forwarding agents report on it
  ResourceId rid;
  std::string rowKey;
  std::optional<Lattice::Row> oldRow;
  std::optional<Lattice::Row> newRow;    // nothing for a deletion
  std::optional<std::string> oldRecord;  // the cache record, as stored
  std::string newRecord;                 // the one written for it; empty for a deletion
  std::string oldMetadata;               // the controller's metadata bytes
};

// Call with the activity lock held, on a PI server thread or the reactor. Refusals are
// P4RuntimeExceptions, thrown before anything has changed.
class TableImpl : public BatchEntries {
 public:
  // `database` may be null until the caches are mounted by initializedIs(true) (tests without
  // shared tables); all three outlive this.
  TableImpl(Vela::Ptr<P4TableInfo> tableInfo, Vela::Ptr<P4HandleMgr> handleMgr,
            Lattice::Database* database);
  ~TableImpl() override;
  const char* typeName() const override { return "P4Runtime::TableImpl"; }

  VELA_READONLY_ATTRIBUTE(uint64_t, deviceId, 0)
  VELA_READONLY_ATTRIBUTE(bool, initialized, false)
  VELA_ATTRIBUTE(bool, tableSizeCheckEnabled, true)
  VELA_READONLY_ATTRIBUTE(bool, constTablesProgrammed, false)
  // Counts the times that entries are to be restored once more; whoever restores them observes it.
  VELA_READONLY_ATTRIBUTE(uint32_t, restoreRequests, 0)

 public:
  P4TableInfo& tableInfo() const { return *tableInfo_; }
  P4HandleMgr& handleMgr() const { return *handleMgr_; }

  // Key and action bytes are in PI encoding; `priority` as the controller gave it. A null meter or
  // counter means that the entry came without one.
  EntryHandle tableEntryAdd(uint32_t tableId, uint32_t priority, size_t keySize, const char* key,
                            uint32_t actionId, size_t actionSize, const char* action,
                            const P4MeterConfig* meter, const P4CounterData* counter);
  EntryHandle indirectTableEntryAdd(uint32_t tableId, uint32_t priority, size_t keySize,
                                    const char* key, const char* handle, size_t handleSize,
                                    bool isGroup, const P4MeterConfig* meter,
                                    const P4CounterData* counter);
  EntryHandle tableEntryDeleteWithKey(uint32_t tableId, uint32_t priority, size_t keySize,
                                      const char* key);

  // Members and groups go by their handles: upper half 0 and 1, the lower half keys the row.
  // `action` as above. All answer the entry handle that batch and pending operations go by.
  EntryHandle actionProfileMemberEntryAdd(uint32_t actProfId, uint32_t actionId, size_t actionSize,
                                          const char* action, MemberHandle handle);
  EntryHandle actionProfileMemberEntryDelete(uint32_t actProfId, MemberHandle handle);
  // Writes no row: a group has one from its first member on.
  EntryHandle actionProfileGroupEntryAdd(uint32_t actProfId, GroupHandle handle);
  EntryHandle actionProfileGroupEntryDelete(uint32_t actProfId, GroupHandle handle);
  // A member may be in a group several times.
  EntryHandle actionProfileGroupAddMbr(uint32_t actProfId, GroupHandle group, MemberHandle member);
  EntryHandle actionProfileGroupDelMbr(uint32_t actProfId, GroupHandle group, MemberHandle member);
  // Only what is kept beside the group's record changes; complete at once.
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
  void entryCacheDel(const ResourceId& rid, EntryHandle handle);
  void restoreTableEntryOnFailure(EntryHandle handle) override;

  // Gives what survived a restart back to the PI library and to the handle manager: members, then
  // groups, then the entries that name them. Rows that are as they were are not written again.
  // Records that the pipeline is known to have no place for are removed, and listed in failures();
  // so are rows that no entry stands for. Anything else that goes wrong is thrown, and nothing more
  // is removed.
  void restoreCachedEntries();
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
  bool restoreNeeded() const { return restoreNeeded_; }
  void restoreNeededIs(bool needed) override { restoreNeeded_ = needed; }
  // The caches were let go: what they hold cannot be told.
  bool cacheLetGo() const { return cacheLetGo_; }

  void assignDevice(uint64_t deviceId) override { deviceIdIs(deviceId); }
  void clearPendingOperations() override;
  size_t numPendingEntries() const override;
  bool anyPutBack() const override { return !putBack_.empty(); }
  // Commits what was put back. When the store cannot, the critical state begins: the tables then
  // hold what was to be undone, until revertCriticalState() can put it back.
  void commitPutBack() override;
  // Commits what was restored and programmed outside a batch. Throws std::runtime_error with the
  // reason when the store cannot.
  void commitOrThrow();

  void validateKeySize(size_t bytes) const;
  void validateActionSize(size_t bytes) const;
  void validateKeyAndActionSize(size_t keyBytes, size_t actionBytes) const;
  // Refuses a new entry of a table that holds exactly as many rows as the P4Info says.
  void maybeCheckTableSizeLimit(const ResourceId& rid, EntryHandle handle) const;
  // Appends the action-selecting value and the action's fields; `action` is changed in place.
  void extractActionFields(const ResourceId& tableRid, uint32_t actionId, size_t actionSize,
                           uint8_t* action, uint32_t& count, const uint8_t** fields);

  void triggerCriticalState();
  // Throws Vela::Exception, and the state stays, when entries that failed can still not be put
  // back. Where a restore is needed, asks for it first.
  void revertCriticalState();

  // Null until the caches are mounted.
  TableCache* tableCache() const { return tableCache_.get(); }
  ActionProfileMemberCache* memberCache() const { return memberCache_.get(); }
  ActionProfileGroupCache* groupCache() const { return groupCache_.get(); }

  // A report that no batch was waiting for: keeps a failure, and forgets one that has been mended.
  void handleStrayReport(const Lattice::Report& report);
  // A forwarding agent has left; returns the number of its failures, which go with it.
  size_t forgetReportsOf(uint64_t subscriber);
  // Every forwarding agent has taken a snapshot that shows `sequence`.
  void handleInStep(uint64_t sequence);
  // What forwarding agents reported as failed when no batch was waiting for it.
  const Vela::Ptr<EntryFailures>& failures() const { return failures_; }
  // The entries that came with the pipeline.
  ConstantEntries& constantEntries() { return constantEntries_; }
  // "table ingress.ipv4, ipv4_dst=10.0.0.0/8"; for messages and the list of failures.
  std::string entryText(EntryHandle handle) const;

 private:
  friend class ConstantEntries;
  friend class TableRestorer;
  friend class ActionProfileRestorer;
  struct Table {  // what a write needs of a table's model
    ResourceId rid;
    const FieldBitwidths& widths;
    Lattice::RowConstructor& constructor;
    Lattice::ArTableInterface& interface;
    bool needsPriority;
  };
  struct MetersOf;  // the meter and counter parameters of a row

  Table requireTable(const ResourceId& rid) const;
  void requireSize(const Table& table, const char* what, size_t size, size_t expected) const;
  void appendMeters(const ResourceId& rid, const P4MeterConfig* meter, const P4CounterData* counter,
                    MetersOf& meters, RowFields& fields) const;
  RowFields& startRow(const Table& table, size_t keySize, const char* key);
  // Of a member or group table.
  RowFields& startRow(uint32_t id);
  using GroupMembers = std::vector<uint32_t>;  // row ids, a member as often as it weighs
  std::optional<GroupMembers> groupMembers(const Table& table, GroupHandle handle) const;
  EntryHandle writeGroup(const Table& table, GroupHandle handle, const GroupMembers& members);
  EntryHandle deleteRow(const Table& table, EntryHandle handle, const std::string& rowKey);
  EntryHandle completeAtOnce(const Table& table, GroupHandle handle, bool isNew);
  void appendPriority(const Table& table, const uint32_t& priority, RowFields& fields) const;
  EntryHandle writeEntry(const Table& table, EntryHandle handle, bool isNew,
                         const RowFields& fields);
  void requireOwnRow(const Table& table, const std::string& rowKey, EntryHandle handle) const;
  template <typename AppendAction>
  EntryHandle addEntry(uint32_t tableId, uint32_t priority, size_t keySize, const char* key,
                       const P4MeterConfig* meter, const P4CounterData* counter,
                       AppendAction appendAction);

  PendingOperation& newPendingOperation(EntryHandle handle, PendingOperationType type,
                                        const ResourceId& rid, std::optional<Lattice::Row> oldRow,
                                        std::optional<Lattice::Row> newRow, std::string rowKey,
                                        bool isNew);
  void awaitReport(EntryHandle handle, PendingOperation& operation, uint64_t sequence);
  void rememberRecord(EntryHandle handle, PendingOperation& operation) const;
  CacheKey cacheKey(EntryHandle handle) const;
  std::optional<Brine::Bytes> storedRecord(const CacheKey& key) const;
  void recordDel(const CacheKey& key);
  std::string profileObjectText(EntryHandle handle) const;
  std::string failedEntryText(const Lattice::Report& report) const;
  void doJudgeEarlyReports();
  std::optional<std::string> rowKey(EntryHandle handle) const;
  uint64_t rowSequence(EntryHandle handle) const;
  std::optional<EntryState> cachedState(const CacheKey& key) const;  // nothing without a record
  void cachedStateIs(const CacheKey& key, EntryState state);
  void doUpdateCachedEntryState(EntryHandle handle, bool abort);
  void handleMended(EntryHandle handle);
  // An operation that was undone, until the undoing is committed.
  struct PutBack {
    EntryHandle handle = 0;
    PendingOperation operation;
  };
  void putBack(EntryHandle handle, const PendingOperation& operation);
  void maybePutBackAgain();
  uint64_t restoreRow(EntryHandle handle, const PendingOperation& operation);
  void restoreRecord(EntryHandle handle, const PendingOperation& operation);
  void restoreTableRecord(const CacheKey& key, const PendingOperation& operation);
  size_t removeOrphanedRows();
  bool anyEntryFor(const ResourceId& rid, EntryHandle handle) const;
  void sayWhatWasRestored() const;
  std::string damagedText(const Brine::DamagedRecord& record);
  Vela::Ptr<Lattice::ArTableInterface> interfaceOf(const std::string& tableName) const;
  void removeDamagedRecords();
  std::vector<std::string> orphanedRows(const ResourceId& rid,
                                        const Lattice::ArTableInterface& interface);
  void handleInitialized();
  void doContinueHandles();
  void doLetGoOfCache();
  void handleConstTablesProgrammed();

  const Vela::Ptr<P4TableInfo> tableInfo_;
  const Vela::Ptr<P4HandleMgr> handleMgr_;
  Lattice::Database* const database_;
  Vela::Ptr<TableCache> tableCache_;
  Vela::Ptr<ActionProfileMemberCache> memberCache_;
  Vela::Ptr<ActionProfileGroupCache> groupCache_;
  std::optional<Brine::TableNumber> metadataTable_;
  absl::node_hash_map<EntryHandle, PendingOperation> pendingOperations_;
  std::unique_ptr<RowFields> rowFields_;
  Vela::Ptr<EntryFailures> failures_;
  EarlyReports earlyReports_;
  std::vector<PutBack> putBack_;
  bool restoring_ = false;
  bool restoreNeeded_ = false;
  bool cacheLetGo_ = false;
  RestoreCounts restored_;
  ConstantEntries constantEntries_{*this};
  absl::flat_hash_set<EntryHandle> rewritten_;  // while restoring: rows that are not to be kept
  Vela::Observation initializedChange_;
  Vela::Observation constTablesChange_;
  WriteGate::Closer cachesLetGo_{"the agent is disabled"};
};

Vela::Ptr<TableImpl> tableImplFactory(Vela::Ptr<P4TableInfo> tableInfo,
                                      Vela::Ptr<P4HandleMgr> handleMgr,
                                      Lattice::Database* database);

// Of the process's context, which must have been set; null until the agent has filled it in.
TableImpl* TheTableImpl();

}  // namespace P4Runtime
