#include "platform/lattice/Database.h"

#include <algorithm>
#include <map>
#include <new>
#include <set>
#include <stdexcept>
#include <utility>

#include "platform/lattice/TableWatch.h"
#include "platform/lattice/doorbell/Doorbell.h"
#include "platform/lattice/records/Packing.h"
#include "platform/lattice/records/StoreLayout.h"
#include "platform/lattice/records/WholeBatch.h"
#include "platform/lattice/types/KeptRows.h"
#include "platform/lattice/types/RowWalk.h"
#include "platform/scrivel/Trace.h"
#include "platform/vela/ActivityLock.h"

namespace Lattice {
namespace {

Scrivel::TraceHandle trace("LatticeDatabase");

// With followers attached more changes may be kept than without, but not until the state directory
// is full: one that lags this far takes a snapshot.
constexpr size_t laggingFactor = 10;
// A smaller batch is committed before a follower has made use of it.
constexpr uint64_t worthShowing = 120;

}  // namespace

// Its table in the store, once bound and initialised.
struct ArTableInterface::Impl {
  std::string tableName;
  std::string typeName;
  std::function<void()> onReady;
  DatabaseImpl* database = nullptr;  // null: not bound
  std::shared_ptr<const TableType> type;
  std::string boundName;  // the table's name in the database
  bool persistent = true;
  bool initialised = false;
  Brine::TableNumber rows = 0;
  bool announced = false;               // the table's record in the types table is committed
  std::weak_ptr<WatchedTable> watched;  // empty: no rows are derived from it
};

class DatabaseImpl final : public Database {
 public:
  DatabaseImpl(Vela::ReactorLoop& loop, Brine::Store& store, const DatabaseOptions& options)
      : loop_(loop),
        store_(store),
        options_(options),
        types_(store.table(typesTable)),
        doorbell_(loop, options.doorbellPath, options.attachWithin, store,
                  [this] {
                    if (!inBatch_) commitUnasked();
                  }),
        undoneAtStart_(undoUnfinishedBatch(store)),
        scopeEnd_([this] { handleScopeEnd(); }) {}
  ~DatabaseImpl() override {
    *alive_ = false;
    for (const auto& [name, table] : bound_) table->database = nullptr;
  }

  Brine::Store& store() override { return store_; }
  void bindInterface(const Vela::Ptr<ArTableInterface>& interface, const std::string& name,
                     bool persistent) override;
  Kept kept(const std::string& table) override;
  std::vector<std::string> keptTables() const override;
  void keptDel(const std::string& table) override;
  std::vector<std::string> removeUnboundTables() override;
  void rowTakerIs(RowTaker taker) override { rowTaker_ = std::move(taker); }
  void emptyTables() override;
  void batchBegin() override;
  Vela::Outcome batchEnd() override;
  Vela::Outcome commit() override;
  void wholeBatchIs(std::span<const uint64_t> changes) override { noteWholeBatch(store_, changes); }
  size_t undoneAtStart() const override { return undoneAtStart_; }
  void settle() override;
  void urgentIs(bool isUrgent) override { doorbell_.urgentIs(isUrgent); }
  void showAhead() override {
    const uint64_t changes = store_.nextSequence() - store_.committedSequence();
    if (inBatch_ && changes > worthShowing) doorbell_.shownAheadIs(store_.showAhead());
  }
  void listen() override { doorbell_.look(); }
  void stopListening() override { doorbell_.stopLooking(); }
  bool lookForProgrammed() const override { return doorbell_.lookForProgrammed(batchEnd_); }
  uint64_t undo(uint64_t sequence) override;
  void lossHandlerIs(std::function<void(const std::string&)> handler) override {
    tellLoss_ = std::move(handler);
  }
  bool inBatch() const override { return inBatch_; }
  void commitSoon() override;
  uint64_t lastSequence() const override { return store_.committedSequence(); }
  void commitObserverIs(CommitObserver* observer) override { commitObserver_ = observer; }
  std::unique_ptr<TableWatch> watch(const std::string& table) override;
  void observerIs(Observer observer) override { doorbell_.observerIs(std::move(observer)); }
  bool ask(const Question& question, AnswerHandler handler) override {
    return doorbell_.ask(question, std::move(handler));
  }
  std::vector<SubscriberInfo> subscribers() const override { return doorbell_.subscribers(); }
  uint64_t droppedMessages() const override { return doorbell_.droppedMessages(); }

  // For the interfaces.
  void maybeInitialize(const Vela::Ptr<ArTableInterface>& interface, ArTableInterface::Impl& table);
  void unbind(ArTableInterface::Impl& table);
  std::optional<Brine::Record> stored(const ArTableInterface::Impl& table, std::string_view key) {
    return store_.record(table.rows, Brine::asBytes(key));
  }
  std::optional<Brine::Record> storedOf(const ArTableInterface::Impl& table, uint64_t entryHandle,
                                        uint32_t keyHash) {
    return store_.recordOf(table.rows, keyHash, entryHandle);
  }
  StoredRow storedRow(const Brine::Record& record) const;
  uint64_t rowIs(const ArTableInterface::Impl& table, const Row& row, uint64_t entryHandle,
                 std::string_view attachment);
  uint64_t rowDel(const ArTableInterface::Impl& table, std::string_view key, uint64_t entryHandle);

 private:
  struct OwnedRow {
    Row row;
    uint64_t entryHandle;
    std::string attachment;
  };

  void handleScopeEnd();
  Vela::Outcome tryCommit();
  void commitUnasked();
  void doCommit();
  void ring(uint64_t committedBefore);
  void noteUndo(const Brine::Change& change);
  void maybeSettle();
  void doDerive();
  void settleWatches(void (WatchedTable::*outcome)());
  void tellWatchers(ArTableInterface::Impl& table);
  std::vector<OwnedRow> rowsOfDamagedRecord(const ArTableInterface::Impl& table);
  void keepAttachments(const std::string& table, const std::string& definition);
  void renew(ArTableInterface::Impl& table);
  void announce(ArTableInterface::Impl& table);
  void announceAgain();
  std::optional<TableRecord> recordOf(const ArTableInterface::Impl& table);
  bool survives(const ArTableInterface::Impl& table);
  bool survivesRetyped(const ArTableInterface::Impl& table);
  void write(const ArTableInterface::Impl& table);

  Vela::ReactorLoop& loop_;
  Brine::Store& store_;
  const DatabaseOptions options_;
  const Brine::TableNumber types_;
  Doorbell doorbell_;
  std::map<std::string, ArTableInterface::Impl*> bound_;
  CommitObserver* commitObserver_ = nullptr;
  std::vector<std::weak_ptr<WatchedTable>> watched_;
  bool inBatch_ = false;
  uint64_t batchEnd_ = 0;      // the last sequence number of the last batch
  bool unsettled_ = false;     // a batch waits for its outcome
  bool typesChanged_ = false;  // in this commit
  bool rowsChanged_ = false;   // in this commit
  bool commitLater_ = false;   // not at the end of this scope
  bool commitPosted_ = false;  // the reactor has been asked to
  std::function<void(const std::string&)> tellLoss_;
  RowTaker rowTaker_;
  const size_t undoneAtStart_;
  const std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
  const Vela::ScopeEndHook scopeEnd_;
};

std::unique_ptr<Database> Database::create(Vela::ReactorLoop& loop, Brine::Store& store,
                                           const DatabaseOptions& options) {
  return std::make_unique<DatabaseImpl>(loop, store, options);
}

void DatabaseImpl::bindInterface(const Vela::Ptr<ArTableInterface>& interface,
                                 const std::string& name, bool persistent) {
  ArTableInterface::Impl& table = *interface->impl_;
  if (table.database) table.database->unbind(table);
  if (const auto former = bound_.find(name); former != bound_.end()) unbind(*former->second);
  bound_[name] = &table;
  table.database = this;
  table.boundName = name;
  table.persistent = persistent;
  maybeInitialize(interface, table);
}

void DatabaseImpl::unbind(ArTableInterface::Impl& table) {
  tellWatchers(table);
  bound_.erase(table.boundName);
  table.database = nullptr;
  table.initialised = false;
}

void DatabaseImpl::tellWatchers(ArTableInterface::Impl& table) {
  if (table.watched.expired()) return;
  table.watched.reset();
  if (commitObserver_) commitObserver_->onWatchedTableGone(std::string(table.boundName));
}

std::unique_ptr<TableWatch> DatabaseImpl::watch(const std::string& table) {
  if (inBatch_) throw std::logic_error("table " + table + " cannot be watched in mid-batch");
  const auto found = bound_.find(table);
  if (found == bound_.end() || !found->second->initialised) return nullptr;
  if (store_.dirty()) {
    const Vela::Outcome stored = tryCommit();
    if (!stored.ok()) throw Brine::StoreError(Brine::Trouble::full, stored.reason());
  }
  std::shared_ptr<WatchedTable> watched = found->second->watched.lock();
  if (!watched) {
    watched = std::make_shared<WatchedTable>(store_, table);
    found->second->watched = watched;
    std::erase_if(watched_, [](const auto& one) { return one.expired(); });
    watched_.push_back(watched);
  }
  return std::make_unique<TableWatch>(std::move(watched));
}

void DatabaseImpl::maybeInitialize(const Vela::Ptr<ArTableInterface>& interface,
                                   ArTableInterface::Impl& table) {
  if (table.initialised) return;
  table.type = TheTypeRegistry().type(table.typeName);
  if (!table.type) return;  // maybeInitialize() is called again after its compilation
  table.rows = store_.table(rowTable(table.boundName));
  table.announced = survives(table);
  if (!table.announced) announce(table);
  table.initialised = true;
  loop_.post([interface] {
    if (interface->ready() && interface->impl_->onReady) interface->impl_->onReady();
  });
}

// Whether the table keeps the rows in the store.
bool DatabaseImpl::survives(const ArTableInterface::Impl& table) {
  const auto record = recordOf(table);
  const bool same = record && record->number == table.rows &&
                    record->typeName == table.type->name() &&
                    record->definition == table.type->definition();
  return same && (table.persistent || store_.count(table.rows) == 0);
}

// Whether it keeps them although the store has another type of it. Rows that are being set aside
// must go.
bool DatabaseImpl::survivesRetyped(const ArTableInterface::Impl& table) try {
  if (!table.persistent || rowTaker_ || !doorbell_.fixedTypes().none()) return false;
  const auto record = recordOf(table);
  if (!record || record->number != table.rows) return false;
  return keepsRows(*TableType::compile(record->typeName, record->definition), *table.type);
} catch (const TypeError&) {
  return false;
}

std::optional<TableRecord> DatabaseImpl::recordOf(const ArTableInterface::Impl& table) {
  const auto bytes = store_.get(types_, Brine::asBytes(table.boundName));
  return bytes ? TableRecord::decode(Brine::asText(*bytes)) : std::nullopt;
}

// Unless it keeps its rows, the table gets another number. Followers take it for a new one then: it
// has the rows that changes tell of from here on.
void DatabaseImpl::announce(ArTableInterface::Impl& table) {
  if (survivesRetyped(table)) {
    SCRIVEL_TRACE(1, "table ", table.boundName, " keeps its rows under another type");
    doorbell_.fixedTypes().retyped();
    return write(table);
  }
  const std::vector<OwnedRow> kept = rowsOfDamagedRecord(table);
  const auto record = recordOf(table);
  if (record) {
    SCRIVEL_TRACE(0, "table ", table.boundName, " has another type than before; its ",
                  store_.count(table.rows), " rows are dropped");
  }
  if (kept.empty()) keepAttachments(table.boundName, record ? record->definition : "");
  renew(table);
  for (const OwnedRow& one : kept) rowIs(table, one.row, one.entryHandle, one.attachment);
}

void DatabaseImpl::renew(ArTableInterface::Impl& table) {
  const std::string rows = rowTable(table.boundName);
  store_.tableDel(rows);
  table.rows = store_.table(rows);
  write(table);
}

void DatabaseImpl::write(const ArTableInterface::Impl& table) {
  const TableRecord record{table.rows, table.type->name(), table.type->definition()};
  store_.put(types_, Brine::asBytes(table.boundName), Brine::asBytes(record.encode()));
  store_.typesChanged();
  typesChanged_ = true;
}

// The settings of direct meters stand in rows alone. Without its record, a table keeps them if each
// has the layout of the type; an absent record means that the table was being removed.
std::vector<DatabaseImpl::OwnedRow> DatabaseImpl::rowsOfDamagedRecord(
    const ArTableInterface::Impl& table) {
  const Brine::Bytes name = Brine::asBytes(table.boundName);
  if (!table.persistent || store_.get(types_, name) || !store_.erase(types_, name)) return {};
  std::vector<OwnedRow> rows;
  bool allFit = true;
  store_.forEachRecord(table.rows, [&](const Brine::Record& row) {
    const std::string_view value = Brine::asText(row.value);
    allFit = row.key.size() == table.type->keySize() && fitOfValue(*table.type, value);
    if (allFit) {
      rows.push_back({{std::string(Brine::asText(row.key)), std::string(value)},
                      row.owner,
                      std::string(Brine::asText(row.attachment))});
    }
    return allFit;
  });
  return allFit ? std::move(rows) : std::vector<OwnedRow>();
}

// In the commit in which the rows go. Where there is no room for all of them, the rows stay and
// none is kept.
void DatabaseImpl::keepAttachments(const std::string& table, const std::string& definition) {
  const std::string rows = rowTable(table);
  if (!store_.hasTable(rows)) return;
  if (rowTaker_) {
    store_.forEachRecord(store_.table(rows), [&](const Brine::Record& row) {
      rowTaker_(table, definition, storedRow(row));
      return true;
    });
    return;
  }
  std::vector<std::pair<uint64_t, std::string>> found;  // the store must not change meanwhile
  store_.forEachRecord(store_.table(rows), [&](const Brine::Record& row) {
    if (!row.attachment.empty()) found.emplace_back(row.owner, Brine::asText(row.attachment));
    return true;
  });
  if (found.empty()) return;
  const Brine::TableNumber kept = store_.table(std::string(keptPrefix) + table);
  try {
    for (const auto& [handle, bytes] : found) {
      store_.put(kept, Brine::asBytes(bigEndian(handle)), Brine::asBytes(bytes));
    }
  } catch (const Brine::StoreError&) {
    for (const auto& [handle, bytes] : found) store_.erase(kept, Brine::asBytes(bigEndian(handle)));
    throw;
  }
}

Database::Kept DatabaseImpl::kept(const std::string& table) {
  Kept all;
  const std::string name = std::string(keptPrefix) + table;
  if (!store_.hasTable(name)) return all;
  store_.forEach(store_.table(name), [&](Brine::Bytes key, Brine::Bytes bytes) {
    const bool isHandle = key.size() == sizeof(uint64_t);
    if (isHandle) {
      all.emplace_back(__builtin_bswap64(loadAt<uint64_t>(key.data())), Brine::asText(bytes));
    }
    return true;
  });
  return all;
}

std::vector<std::string> DatabaseImpl::keptTables() const {
  std::vector<std::string> tables;
  for (const std::string& name : store_.tableNames()) {
    if (name.starts_with(keptPrefix)) tables.push_back(name.substr(keptPrefix.size()));
  }
  return tables;
}

void DatabaseImpl::keptDel(const std::string& table) {
  const std::string name = std::string(keptPrefix) + table;
  if (store_.hasTable(name)) store_.eraseAll(store_.table(name));
}

void DatabaseImpl::emptyTables() {
  for (const auto& [name, table] : bound_) {
    if (table->initialised && store_.count(table->rows) > 0) renew(*table);
  }
}

std::vector<std::string> DatabaseImpl::removeUnboundTables() {
  std::set<std::string> names;
  std::map<std::string, std::string> definitions;
  store_.forEach(types_, [&](Brine::Bytes key, Brine::Bytes bytes) {
    const std::string name(Brine::asText(key));
    names.insert(name);
    const auto record = TableRecord::decode(Brine::asText(bytes));
    if (record) definitions[name] = record->definition;
    return true;
  });
  for (const std::string& name : store_.tableNames()) {
    if (name.starts_with(rowTablePrefix)) names.insert(name.substr(rowTablePrefix.size()));
  }
  std::erase_if(names, [this](const std::string& name) { return bound_.contains(name); });
  for (const std::string& name : names) {
    if (store_.erase(types_, Brine::asBytes(name))) {
      store_.typesChanged();
      typesChanged_ = true;
    }
  }
  // The records go first: a table without a record counts as empty, should we be killed here.
  if (!inBatch_) commitUnasked();
  for (const std::string& name : names) {
    keepAttachments(name, definitions[name]);
    store_.tableDel(rowTable(name));
  }
  return {names.begin(), names.end()};
}

void DatabaseImpl::batchBegin() {
  if (inBatch_) return;
  commitUnasked();  // earlier writes do not share the batch's fate
  inBatch_ = true;
}

Vela::Outcome DatabaseImpl::batchEnd() {
  inBatch_ = false;
  unsettled_ = true;
  Vela::Outcome stored = tryCommit();
  batchEnd_ = store_.committedSequence();
  if (commitObserver_) commitObserver_->onBatchEnded();
  return stored;
}

void DatabaseImpl::settle() {
  unsettled_ = false;
  maybeSettle();
}

uint64_t DatabaseImpl::undo(uint64_t sequence) {
  const auto change = store_.change(sequence);
  if (!change) return 0;
  noteUndo(*change);
  const uint64_t made = store_.undo(sequence);
  rowsChanged_ = true;
  return made;
}

// Watches of the table hear of it as of any write.
void DatabaseImpl::noteUndo(const Brine::Change& change) {
  const auto of = std::ranges::find_if(
      bound_, [&](const auto& one) { return one.second->rows == change.table; });
  const auto watched = of == bound_.end() ? nullptr : of->second->watched.lock();
  if (!watched || (!change.before && !change.now)) return;
  const std::string key(Brine::asText(change.before ? change.before->key : change.now->key));
  watched->noteChange(key, watched->value(key));
}

void DatabaseImpl::maybeSettle() {
  if (unsettled_) return;
  store_.settle();
  const size_t bound = options_.journalChangesWithoutSubscriber;
  const bool attached = doorbell_.anyAttached();
  store_.trim(attached ? doorbell_.receivedByAll() : 0, attached ? bound * laggingFactor : bound);
}

void DatabaseImpl::commitSoon() {
  if (loop_.onThread() || !store_.dirty()) return;
  commitLater_ = true;
  if (std::exchange(commitPosted_, true)) return;
  loop_.post([alive = alive_, this] {
    if (*alive && !inBatch_) commitUnasked();
  });
}

Vela::Outcome DatabaseImpl::commit() {
  if (inBatch_) throw std::logic_error("a batch commits at its end");
  commitPosted_ = false;
  return tryCommit();
}

// While a commit is posted, all pending writes are dispensable.
void DatabaseImpl::commitUnasked() {
  const bool dispensable = std::exchange(commitPosted_, false);
  const bool changesRows = rowsChanged_ || typesChanged_;
  const Vela::Outcome stored = tryCommit();
  if (!stored.ok() && changesRows && !dispensable && tellLoss_) tellLoss_(stored.reason());
}

void DatabaseImpl::handleScopeEnd() {
  if (inBatch_ || std::exchange(commitLater_, false)) return;
  if (store_.dirty()) {
    commitPosted_ = false;  // this scope wrote something else
    commitUnasked();
  }
}

// When it fails the writes since the last commit are lost.
Vela::Outcome DatabaseImpl::tryCommit() try {
  if (!store_.dirty()) {
    maybeSettle();  // a batch of an earlier process
    return {};
  }
  doDerive();
  doCommit();
  settleWatches(&WatchedTable::handleCommitted);
  if (commitObserver_) commitObserver_->onCommitted();
  return {};
} catch (const std::exception& error) {
  SCRIVEL_TRACE(0, "commit failed: ", error.what());
  const uint64_t before = store_.committedSequence();
  store_.discard();
  doorbell_.ring(before);  // followers may have read changes ahead
  doorbell_.fixedTypes().handleDiscarded();
  rowsChanged_ = false;
  if (commitObserver_) commitObserver_->onDiscarded();
  settleWatches(&WatchedTable::forgetChanges);
  announceAgain();
  return Vela::Outcome::failure(error.what());
}

void DatabaseImpl::doDerive() {
  if (!commitObserver_) return;
  const auto touched = [](const auto& one) {
    const auto table = one.lock();
    return table && table->anyNoted();
  };
  if (std::ranges::any_of(watched_, touched)) commitObserver_->onBeforeCommit();
}

void DatabaseImpl::settleWatches(void (WatchedTable::*outcome)()) {
  for (const auto& one : watched_) {
    if (const auto table = one.lock()) (*table.*outcome)();
  }
}

void DatabaseImpl::doCommit() {
  const uint64_t before = store_.committedSequence();
  store_.commit();
  const bool anyChange = std::exchange(rowsChanged_, false) | std::exchange(typesChanged_, false);
  if (anyChange) ring(before);
  maybeSettle();
}

void DatabaseImpl::ring(uint64_t committedBefore) {
  for (const auto& [name, table] : bound_) table->announced |= table->initialised;
  doorbell_.ring(committedBefore);
}

// Tables that were bound in the commit that failed must not be without a record.
void DatabaseImpl::announceAgain() try {
  typesChanged_ = false;
  for (const auto& [name, table] : bound_) {
    if (table->initialised && !table->announced) announce(*table);
  }
} catch (const Brine::StoreError& error) {
  SCRIVEL_TRACE(0, "cannot announce tables: ", error.what());
}

StoredRow DatabaseImpl::storedRow(const Brine::Record& record) const {
  return {.key = Brine::asText(record.key),
          .value = Brine::asText(record.value),
          .attachment = Brine::asText(record.attachment),
          .entryHandle = record.owner,
          .sequence = record.sequence,
          .unsettled = store_.isUnsettled(record)};
}

uint64_t DatabaseImpl::rowIs(const ArTableInterface::Impl& table, const Row& row,
                             uint64_t entryHandle, std::string_view attachment) {
  const auto former = stored(table, row.key);
  const bool same = former && Brine::asText(former->value) == row.value;
  const bool isAsItWas =
      same && former->owner == entryHandle && Brine::asText(former->attachment) == attachment;
  if (isAsItWas && !inBatch_) return 0;
  if (const auto watched = table.watched.lock(); watched && !same) {
    watched->noteChange(row.key,
                        former ? std::optional(Brine::asText(former->value)) : std::nullopt);
  }
  const auto written =
      store_.write(table.rows, Brine::asBytes(row.key), row.value.size(),
                   {.attachmentSize = attachment.size(), .owner = entryHandle, .unchanged = same});
  std::ranges::copy(row.value, written.value.begin());
  std::ranges::copy(attachment, written.attachment.begin());
  rowsChanged_ = true;
  // Nobody waits for a change that followers do not see.
  return same && !inBatch_ ? 0 : written.sequence;
}

uint64_t DatabaseImpl::rowDel(const ArTableInterface::Impl& table, std::string_view key,
                              uint64_t entryHandle) {
  if (const auto watched = table.watched.lock()) watched->noteChange(key, watched->value(key));
  if (!inBatch_ && !store_.contains(table.rows, Brine::asBytes(key))) return 0;
  const uint64_t sequence = store_.eraseFor(table.rows, Brine::asBytes(key), entryHandle);
  rowsChanged_ = true;
  return sequence;
}

ArTableInterface::ArTableInterface(std::string tableName, std::string typeName,
                                   std::function<void()> ready)
    : impl_(std::make_unique<Impl>()) {
  impl_->tableName = std::move(tableName);
  impl_->typeName = std::move(typeName);
  impl_->onReady = std::move(ready);
}

ArTableInterface::~ArTableInterface() {
  if (impl_->database) impl_->database->unbind(*impl_);
}

const std::string& ArTableInterface::tableName() const { return impl_->tableName; }
const std::string& ArTableInterface::typeName() const { return impl_->typeName; }
bool ArTableInterface::ready() const { return impl_->database && impl_->initialised; }

void ArTableInterface::maybeInitialize() {
  if (impl_->database) impl_->database->maybeInitialize(Vela::Ptr<ArTableInterface>(this), *impl_);
}

namespace {

const ArTableInterface::Impl& required(const ArTableInterface& interface,
                                       const std::unique_ptr<ArTableInterface::Impl>& impl) {
  if (interface.ready()) return *impl;
  throw std::logic_error("table " + interface.tableName() +
                         " is not ready; wait for its ready callback before using its rows");
}

}  // namespace

std::optional<Row> ArTableInterface::row(std::string_view key) const {
  const Impl& table = required(*this, impl_);
  const auto stored = table.database->stored(table, key);
  if (!stored) return std::nullopt;
  return Row{std::string(key), std::string(Brine::asText(stored->value))};
}

std::optional<StoredRow> ArTableInterface::stored(std::string_view key) const {
  const Impl& table = required(*this, impl_);
  const auto stored = table.database->stored(table, key);
  if (!stored) return std::nullopt;
  return table.database->storedRow(*stored);
}

std::optional<StoredRow> ArTableInterface::storedOf(uint64_t entryHandle, uint32_t keyHash) const {
  const Impl& table = required(*this, impl_);
  const auto stored = table.database->storedOf(table, entryHandle, keyHash);
  if (!stored) return std::nullopt;
  return table.database->storedRow(*stored);
}

void ArTableInterface::load(std::span<const uint32_t> keyHashes) const {
  const Impl& table = required(*this, impl_);
  table.database->store().load(table.rows, keyHashes);
}

std::optional<StoredRow> ArTableInterface::beingDeleted(uint64_t entryHandle) const {
  const Impl& table = required(*this, impl_);
  const Brine::Store& store = table.database->store();
  for (uint64_t at = store.nextSequence(); --at > store.settledSequence();) {
    const auto change = store.change(at);
    const bool isIt = change && change->table == table.rows && change->before && !change->now &&
                      change->before->owner == entryHandle;
    if (isIt) return table.database->storedRow(*change->before);
  }
  return std::nullopt;
}

uint32_t ArTableInterface::keyHash(std::string_view key) const {
  return required(*this, impl_).database->store().keyHash(Brine::asBytes(key));
}

void ArTableInterface::forEachCommitted(const Visit& visit,
                                        Brine::Store::Position* position) const {
  const Impl& table = required(*this, impl_);
  const auto each = [&](const Brine::Record& row) { return visit(table.database->storedRow(row)); };
  table.database->store().forEachRecord(table.rows, each, position);
}

uint64_t ArTableInterface::rowEntryHandle(std::string_view key) const {
  const Impl& table = required(*this, impl_);
  const auto stored = table.database->stored(table, key);
  return stored ? stored->owner : 0;
}

uint64_t ArTableInterface::rowSequence(std::string_view key) const {
  const Impl& table = required(*this, impl_);
  const auto stored = table.database->stored(table, key);
  return stored ? stored->sequence : 0;
}

uint64_t ArTableInterface::rowIs(const Row& row, uint64_t entryHandle,
                                 std::string_view attachment) {
  const Impl& table = required(*this, impl_);
  return table.database->rowIs(table, row, entryHandle, attachment);
}

uint64_t ArTableInterface::rowDel(std::string_view key, uint64_t entryHandle) {
  const Impl& table = required(*this, impl_);
  return table.database->rowDel(table, key, entryHandle);
}

uint32_t ArTableInterface::number() const { return required(*this, impl_).rows; }

size_t ArTableInterface::rowCount() const {
  const Impl& table = required(*this, impl_);
  return table.database->store().count(table.rows);
}

}  // namespace Lattice
