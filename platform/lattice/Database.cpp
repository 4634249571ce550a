#include "platform/lattice/Database.h"

#include <algorithm>
#include <map>
#include <new>
#include <random>
#include <set>
#include <stdexcept>
#include <utility>

#include "platform/lattice/TableWatch.h"
#include "platform/lattice/doorbell/Doorbell.h"
#include "platform/lattice/records/Journal.h"
#include "platform/lattice/records/Packing.h"
#include "platform/lattice/records/StoreLayout.h"
#include "platform/lattice/types/RowWalk.h"
#include "platform/scrivel/Trace.h"
#include "platform/vela/ActivityLock.h"

namespace Lattice {
namespace {

Scrivel::TraceHandle trace("LatticeDatabase");

StoreIdentity randomIdentity() {
  StoreIdentity identity;
  std::random_device device;
  for (char& byte : identity) byte = static_cast<char>(device());
  return identity;
}

// A store keeps its identity for life; one without gets one.
StoreIdentity identityOf(Brine::Store& store) {
  const Brine::TableNumber meta = store.table(metaTable);
  StoreIdentity identity{};
  const auto stored = store.get(meta, Brine::asBytes(identityKey));
  if (stored && stored->size() == identity.size()) {
    std::copy(stored->begin(), stored->end(), identity.begin());
    return identity;
  }
  identity = randomIdentity();
  store.put(meta, Brine::asBytes(identityKey),
            Brine::asBytes(std::string_view(identity.data(), identity.size())));
  store.commit();
  return identity;
}

// With followers attached the journal may grow beyond the bound, but not until the state directory
// is full: one that lags this far takes a snapshot.
constexpr size_t laggingFactor = 10;

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
  uint32_t number = 0;                  // in the journal
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
        journal_(store),
        doorbell_(loop, options.doorbellPath, options.attachWithin, identityOf(store), journal_),
        scopeEnd_([this] { handleScopeEnd(); }) {}
  ~DatabaseImpl() override {
    *alive_ = false;
    for (const auto& [name, table] : bound_) table->database = nullptr;
  }

  Brine::Store& store() override { return store_; }
  void bindInterface(const Vela::Ptr<ArTableInterface>& interface, const std::string& name,
                     bool persistent) override;
  std::vector<std::string> removeUnboundTables() override;
  void batchBegin() override;
  Vela::Outcome batchEnd() override;
  Vela::Outcome commit(Brine::Store::Filling filling) override;
  void lossHandlerIs(std::function<void(const std::string&)> handler) override {
    tellLoss_ = std::move(handler);
  }
  bool inBatch() const override { return inBatch_; }
  void commitSoon() override;
  uint64_t lastSequence() const override { return journal_.lastSequence(); }
  void commitObserverIs(CommitObserver* observer) override { commitObserver_ = observer; }
  std::unique_ptr<TableWatch> watch(const std::string& table) override;
  void observerIs(Observer observer) override { doorbell_.observerIs(std::move(observer)); }
  std::vector<SubscriberInfo> subscribers() const override { return doorbell_.subscribers(); }
  uint64_t droppedMessages() const override { return doorbell_.droppedMessages(); }

  // For the interfaces.
  void maybeInitialize(const Vela::Ptr<ArTableInterface>& interface, ArTableInterface::Impl& table);
  void unbind(ArTableInterface::Impl& table);
  std::optional<Brine::Bytes> stored(const ArTableInterface::Impl& table, std::string_view key) {
    return store_.get(table.rows, Brine::asBytes(key));
  }
  uint64_t rowIs(const ArTableInterface::Impl& table, const Row& row, uint64_t entryHandle);
  uint64_t rowDel(const ArTableInterface::Impl& table, std::string_view key, uint64_t entryHandle);

 private:
  struct OwnedRow {
    Row row;
    uint64_t entryHandle;
  };

  void handleScopeEnd();
  bool dirty() const { return store_.dirty() || !journal_.empty(); }
  Vela::Outcome tryCommit(Brine::Store::Filling filling);
  Vela::Outcome tryCommit() { return tryCommit(usualFilling()); }
  Brine::Store::Filling usualFilling() const;
  void commitUnasked();
  void doCommit(Brine::Store::Filling filling);
  void doDerive();
  void settleWatches();
  void tellWatchers(ArTableInterface::Impl& table);
  std::vector<OwnedRow> rowsOfDamagedRecord(const ArTableInterface::Impl& table);
  void announce(ArTableInterface::Impl& table);
  void announceAgain();
  bool survives(const ArTableInterface::Impl& table, uint32_t* number);
  void putRow(const ArTableInterface::Impl& table, const Row& row, uint64_t entryHandle,
              uint64_t sequence);

  Vela::ReactorLoop& loop_;
  Brine::Store& store_;
  const DatabaseOptions options_;
  const Brine::TableNumber types_;
  Journal journal_;
  Doorbell doorbell_;
  std::map<std::string, ArTableInterface::Impl*> bound_;
  CommitObserver* commitObserver_ = nullptr;
  std::vector<std::weak_ptr<WatchedTable>> watched_;
  bool inBatch_ = false;
  bool typesChanged_ = false;  // in this commit
  bool rowsAdded_ = false;     // in this commit
  bool commitLater_ = false;   // not at the end of this scope
  bool commitPosted_ = false;  // the reactor has been asked to
  std::function<void(const std::string&)> tellLoss_;
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
  if (dirty()) {
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
  table.announced = survives(table, &table.number);
  if (!table.announced) {
    table.number = journal_.nextTableNumber();
    announce(table);
  }
  table.initialised = true;
  loop_.post([interface] {
    if (interface->ready() && interface->impl_->onReady) interface->impl_->onReady();
  });
}

// Whether the table keeps the rows in the store.
bool DatabaseImpl::survives(const ArTableInterface::Impl& table, uint32_t* number) {
  const auto bytes = store_.get(types_, Brine::asBytes(table.boundName));
  const auto record = bytes ? TableRecord::decode(Brine::asText(*bytes)) : std::nullopt;
  if (!record) return false;
  *number = record->number;
  const bool same =
      record->typeName == table.type->name() && record->definition == table.type->definition();
  if (!same) {
    SCRIVEL_TRACE(0, "table ", table.boundName, " has another type than before; its ",
                  store_.count(table.rows), " rows are dropped");
  }
  return same && (table.persistent || store_.count(table.rows) == 0);
}

// A table with a number of its own, which followers take for a new one: it has the rows that the
// journal tells of from here on.
void DatabaseImpl::announce(ArTableInterface::Impl& table) {
  const std::vector<OwnedRow> kept = rowsOfDamagedRecord(table);
  store_.eraseAll(table.rows);
  const TableRecord record{table.number, table.type->name(), table.type->definition()};
  store_.put(types_, Brine::asBytes(table.boundName), Brine::asBytes(record.encode()));
  journal_.typesChanged();
  typesChanged_ = true;
  for (const OwnedRow& one : kept) rowIs(table, one.row, one.entryHandle);
}

// The settings of direct meters stand in rows alone. Without its record, a table keeps them if each
// has the layout of the type; an absent record means that the table was being removed.
std::vector<DatabaseImpl::OwnedRow> DatabaseImpl::rowsOfDamagedRecord(
    const ArTableInterface::Impl& table) {
  const Brine::Bytes name = Brine::asBytes(table.boundName);
  if (!table.persistent || store_.get(types_, name) || !store_.erase(types_, name)) return {};
  std::vector<OwnedRow> rows;
  bool allFit = true;
  store_.forEach(table.rows, [&](Brine::Bytes key, Brine::Bytes bytes) {
    const auto row = StoredRow::decode(Brine::asText(bytes));
    allFit = row && key.size() == table.type->keySize() && fitOfValue(*table.type, row->value);
    if (allFit) {
      rows.push_back(
          {{std::string(Brine::asText(key)), std::string(row->value)}, row->entryHandle});
    }
    return allFit;
  });
  return allFit ? std::move(rows) : std::vector<OwnedRow>();
}

std::vector<std::string> DatabaseImpl::removeUnboundTables() {
  std::set<std::string> names;
  store_.forEach(types_, [&](Brine::Bytes key, Brine::Bytes) {
    names.emplace(Brine::asText(key));
    return true;
  });
  for (const std::string& name : store_.tableNames()) {
    if (name.starts_with(rowTablePrefix)) names.insert(name.substr(rowTablePrefix.size()));
  }
  std::erase_if(names, [this](const std::string& name) { return bound_.contains(name); });
  for (const std::string& name : names) {
    if (store_.erase(types_, Brine::asBytes(name))) {
      journal_.typesChanged();
      typesChanged_ = true;
    }
  }
  // The records go first: a table without a record counts as empty, should we be killed here.
  if (!inBatch_) commitUnasked();
  for (const std::string& name : names) store_.tableDel(rowTable(name));
  return {names.begin(), names.end()};
}

void DatabaseImpl::batchBegin() {
  if (inBatch_) return;
  commitUnasked();  // earlier writes do not share the batch's fate
  inBatch_ = true;
}

Vela::Outcome DatabaseImpl::batchEnd() {
  inBatch_ = false;
  Vela::Outcome stored = tryCommit();
  if (commitObserver_) commitObserver_->onBatchEnded();
  return stored;
}

void DatabaseImpl::commitSoon() {
  if (loop_.onThread() || !dirty()) return;
  commitLater_ = true;
  if (std::exchange(commitPosted_, true)) return;
  loop_.post([alive = alive_, this] {
    if (*alive && !inBatch_) commitUnasked();
  });
}

Vela::Outcome DatabaseImpl::commit(Brine::Store::Filling filling) {
  if (inBatch_) throw std::logic_error("a batch commits at its end");
  commitPosted_ = false;
  return tryCommit(filling);
}

// While a commit is posted, all pending writes are dispensable.
void DatabaseImpl::commitUnasked() {
  const bool dispensable = std::exchange(commitPosted_, false);
  const bool changesRows = !journal_.empty() || typesChanged_;
  const Vela::Outcome stored = tryCommit();
  if (!stored.ok() && changesRows && !dispensable && tellLoss_) tellLoss_(stored.reason());
}

void DatabaseImpl::handleScopeEnd() {
  if (inBatch_ || std::exchange(commitLater_, false)) return;
  if (dirty()) {
    commitPosted_ = false;  // this scope wrote something else
    commitUnasked();
  }
}

Brine::Store::Filling DatabaseImpl::usualFilling() const {
  using Filling = Brine::Store::Filling;
  return rowsAdded_ ? Filling::leaveRoomToDelete : Filling::leaveRoomToUndo;
}

// When it fails the writes since the last commit are lost.
Vela::Outcome DatabaseImpl::tryCommit(Brine::Store::Filling filling) try {
  if (!dirty()) return {};
  doDerive();
  doCommit(filling);
  rowsAdded_ = false;
  settleWatches();
  if (commitObserver_) commitObserver_->onCommitted();
  return {};
} catch (const std::exception& error) {
  SCRIVEL_TRACE(0, "commit failed: ", error.what());
  store_.discard();
  journal_.discard();
  rowsAdded_ = false;
  if (commitObserver_) commitObserver_->onDiscarded();
  settleWatches();
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

void DatabaseImpl::settleWatches() {
  for (const auto& one : watched_) {
    if (const auto table = one.lock()) table->forgetChanges();
  }
}

void DatabaseImpl::doCommit(Brine::Store::Filling filling) {
  const bool anyChange = !journal_.empty() || typesChanged_;
  if (anyChange) {
    const size_t bound = options_.journalChangesWithoutSubscriber;
    const bool attached = doorbell_.anyAttached();
    journal_.trimTo(attached ? doorbell_.receivedByAll() : 0,
                    attached ? bound * laggingFactor : bound);
    journal_.flush();
  }
  store_.commit(filling);
  if (!anyChange) return;
  typesChanged_ = false;
  for (const auto& [name, table] : bound_) table->announced |= table->initialised;
  const auto& changes = journal_.finishCommit();
  doorbell_.ring(journal_.lastSequence(), changes);
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

uint64_t DatabaseImpl::rowIs(const ArTableInterface::Impl& table, const Row& row,
                             uint64_t entryHandle) {
  const auto bytes = stored(table, row.key);
  const auto former = bytes ? StoredRow::decode(Brine::asText(*bytes)) : std::nullopt;
  const bool same = former && former->value == row.value;
  if (!former) rowsAdded_ = true;
  if (same && !inBatch_) {
    // No change for the followers; yet later ones report under the handle that stands here.
    const uint64_t sequence = former->sequence;
    if (former->entryHandle != entryHandle) putRow(table, row, entryHandle, sequence);
    return 0;
  }
  if (const auto watched = table.watched.lock(); watched && !same) {
    watched->noteChange(row.key, former ? std::optional(former->value) : std::nullopt);
  }
  putRow(table, row, entryHandle, journal_.nextSequence());
  return journal_.add(table.number, row.key, row.value, entryHandle, false, same);
}

void DatabaseImpl::putRow(const ArTableInterface::Impl& table, const Row& row, uint64_t entryHandle,
                          uint64_t sequence) {
  const auto room =
      store_.reserve(table.rows, Brine::asBytes(row.key), StoredRow::headSize + row.value.size());
  storeAt(room.data(), entryHandle);
  storeAt(room.data() + 8, sequence);
  std::memcpy(room.data() + StoredRow::headSize, row.value.data(), row.value.size());
}

uint64_t DatabaseImpl::rowDel(const ArTableInterface::Impl& table, std::string_view key,
                              uint64_t entryHandle) {
  if (const auto watched = table.watched.lock()) watched->noteChange(key, watched->value(key));
  const bool there = store_.erase(table.rows, Brine::asBytes(key));
  if (!there && !inBatch_) return 0;
  return journal_.add(table.number, key, {}, entryHandle, true, !there);
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
  const auto bytes = table.database->stored(table, key);
  const auto stored = bytes ? StoredRow::decode(Brine::asText(*bytes)) : std::nullopt;
  if (!stored) return std::nullopt;
  return Row{std::string(key), std::string(stored->value)};
}

uint64_t ArTableInterface::rowEntryHandle(std::string_view key) const {
  const Impl& table = required(*this, impl_);
  const auto bytes = table.database->stored(table, key);
  const auto stored = bytes ? StoredRow::decode(Brine::asText(*bytes)) : std::nullopt;
  return stored ? stored->entryHandle : 0;
}

uint64_t ArTableInterface::rowSequence(std::string_view key) const {
  const Impl& table = required(*this, impl_);
  const auto bytes = table.database->stored(table, key);
  const auto stored = bytes ? StoredRow::decode(Brine::asText(*bytes)) : std::nullopt;
  return stored ? stored->sequence : 0;
}

uint64_t ArTableInterface::rowIs(const Row& row, uint64_t entryHandle) {
  const Impl& table = required(*this, impl_);
  return table.database->rowIs(table, row, entryHandle);
}

uint64_t ArTableInterface::rowDel(std::string_view key, uint64_t entryHandle) {
  const Impl& table = required(*this, impl_);
  return table.database->rowDel(table, key, entryHandle);
}

size_t ArTableInterface::rowCount() const {
  const Impl& table = required(*this, impl_);
  return table.database->store().count(table.rows);
}

}  // namespace Lattice
