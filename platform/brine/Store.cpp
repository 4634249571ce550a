// The writer: a write set over one LMDB environment.
#include "platform/brine/Store.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <set>
#include <thread>
#include <utility>

#include "platform/brine/CommitRoom.h"
#include "platform/brine/Failure.h"
#include "platform/brine/Records.h"
#include "platform/brine/SharedEnvironment.h"
#include "platform/brine/StoreFiles.h"
#include "platform/brine/StoreHead.h"
#include "platform/brine/WriteSet.h"

namespace Brine {
namespace {

struct Table {
  std::string name;
  MDB_dbi dbi = 0;
  bool exists = true;
  // Of the write set:
  bool cleared = false;              // eraseAll() ran; committed records do not count any more
  int64_t delta = 0;                 // added by the resolved records to the committed count
  std::vector<uint32_t> unresolved;  // records of which we do not know whether they were there
};

// The last result of get() in the committed state, so that a look at a record and a write of it
// cost one descent.
struct Found {
  uint64_t hash = 0;
  TableNumber table = 0;
  bool present = false;
  bool damaged = false;  // present, but without a value
  uint8_t keySize = 0;   // 0: nothing remembered
  std::array<uint8_t, 64> key{};
  Bytes value;
};

class StoreImpl final : public Store {
 public:
  StoreImpl(std::unique_ptr<WriterLock> lock, std::shared_ptr<Environment> environment)
      : lock_(std::move(lock)), environment_(std::move(environment)), read_(*environment_) {
    releaseDeadReaders();
    openTables();
  }

  TableNumber table(std::string_view name) override;
  bool hasTable(std::string_view name) const override { return numbers_.contains(name); }
  std::vector<std::string> tableNames() const override;
  void tableDel(std::string_view name) override;
  std::optional<Bytes> get(TableNumber table, Bytes key) override;
  std::span<uint8_t> reserve(TableNumber table, Bytes key, size_t size) override;
  bool erase(TableNumber table, Bytes key) override;
  void eraseAll(TableNumber table) override;
  size_t count(TableNumber table) const override;
  size_t forEach(TableNumber table, const Visit& visit, Bytes from) override;
  std::vector<DamagedRecord> takeDamagedRecords() override { return std::exchange(damaged_, {}); }
  void eraseDamaged(std::span<const DamagedRecord> records) override;
  bool dirty() const override { return writes_.size() > 0 || anyCleared_; }
  using Store::commit;
  void commit(Filling filling) override;
  void handleReaderGone() override;
  void discard() override;
  size_t bytesUsed() const override;

 private:
  enum class Presence { absent, present, damaged };
  Presence committed(TableNumber table, Bytes key, uint64_t hash, Bytes* value);
  bool isThere(TableNumber table, Bytes key);
  void noteDamage(TableNumber table, Bytes key);
  bool isPending(TableNumber table, Bytes key);
  template <typename Write>
  void inTransaction(const Write& write);
  MDB_cursor* metaCursor(MDB_txn* txn);
  void openTables();
  Table& at(TableNumber table);
  void checkKey(Bytes key) const;
  PendingRecord& pending(TableNumber table, Bytes key);
  void resolve(Table& table, PendingRecord& record) const;
  void erasedIs(Table& table, PendingRecord& record, bool erased);
  void writeAll(MDB_txn* txn, Filling filling);
  std::span<const uint32_t> tableRun(std::span<const uint32_t> order) const;
  void writeTable(MDB_cursor* cursor, const Table& table, std::span<const uint32_t> order);
  void setAside();
  void releaseDeadReaders() { mdb_reader_check(environment_->handle(), nullptr); }

  // Released last to first: the lock outlives the environment.
  std::unique_ptr<WriterLock> lock_;
  std::shared_ptr<Environment> environment_;
  mutable ReadTransaction read_;
  mutable std::vector<Table> tables_;
  std::map<std::string, TableNumber, std::less<>> numbers_;
  mutable WriteSet writes_;
  bool anyCleared_ = false;
  std::array<Found, 128> found_;
  uint64_t commits_ = 0;
  bool readerGone_ = false;             // and perhaps was still there at the last look
  std::vector<DamagedRecord> damaged_;  // not taken yet
  std::set<DamagedRecord> knownDamaged_;
};

bool isOwn(std::string_view name) { return name == metaTable; }

std::vector<std::string> namesIn(MDB_txn* txn, const std::string& directory) {
  std::vector<std::string> names;
  const auto add = [&](std::string_view name) { return names.emplace_back(name), true; };
  check(visitNames(txn, add), directory);
  return names;
}

// Runs `write` in a transaction of its own, without regard to the write set. Where there is no
// room, pages that dead readers held are released first, and `write` runs once more.
template <typename Write>
void StoreImpl::inTransaction(const Write& write) {
  const auto once = [&] {
    Transaction txn(*environment_, 0);
    write(txn.handle());
    txn.commit();
  };
  setAside();
  try {
    return once();
  } catch (const StoreError& error) {
    if (error.trouble != Trouble::full) throw;
  }
  releaseDeadReaders();
  once();
}

void StoreImpl::openTables() {
  const std::lock_guard guard(environment_->handlesMutex);
  Transaction txn(*environment_, MDB_RDONLY);
  for (const std::string& name : namesIn(txn.handle(), environment_->directory())) {
    if (isOwn(name)) continue;
    MDB_dbi dbi = 0;
    check(mdb_dbi_open(txn.handle(), name.c_str(), 0, &dbi), environment_->directory());
    environment_->handles[name] = dbi;
    numbers_[name] = static_cast<TableNumber>(tables_.size());
    tables_.push_back({name, dbi});
  }
  txn.commit();
}

std::string listKey(const std::string& table) { return std::string(tableKeyPrefix) + table; }

// The transaction closes it.
MDB_cursor* StoreImpl::metaCursor(MDB_txn* txn) {
  MDB_dbi dbi = 0;
  MDB_cursor* cursor = nullptr;
  check(mdb_dbi_open(txn, std::string(metaTable).c_str(), 0, &dbi), environment_->directory());
  check(mdb_cursor_open(txn, dbi, &cursor), environment_->directory());
  return cursor;
}

TableNumber StoreImpl::table(std::string_view name) {
  if (const auto known = numbers_.find(name); known != numbers_.end()) return known->second;
  const std::string text(name);
  const std::lock_guard guard(environment_->handlesMutex);
  MDB_dbi dbi = 0;
  inTransaction([&](MDB_txn* txn) {
    environment_->allocateRoom({.pages = 8});
    check(mdb_dbi_open(txn, text.c_str(), MDB_CREATE, &dbi), environment_->directory());
    check(putRecord(metaCursor(txn), asBytes(listKey(text)), {}), environment_->directory());
  });
  environment_->handles[text] = dbi;
  const auto number = static_cast<TableNumber>(tables_.size());
  tables_.push_back({text, dbi});
  numbers_[text] = number;
  return number;
}

std::vector<std::string> StoreImpl::tableNames() const {
  std::vector<std::string> names;
  for (const auto& [name, number] : numbers_) names.push_back(name);
  return names;
}

void StoreImpl::tableDel(std::string_view name) {
  const auto known = numbers_.find(name);
  if (known == numbers_.end()) return;
  Table& table = tables_[known->second];
  {
    const std::lock_guard guard(environment_->handlesMutex);
    inTransaction([&](MDB_txn* txn) {
      environment_->allocateRoom({.pages = 8});
      check(mdb_drop(txn, table.dbi, 1), environment_->directory());
      check(eraseRecord(metaCursor(txn), asBytes(listKey(table.name))), environment_->directory());
    });
    environment_->handles.erase(table.name);
  }
  table.exists = false;
  numbers_.erase(known);
}

Table& StoreImpl::at(TableNumber table) {
  if (table >= tables_.size() || !tables_[table].exists) {
    throw std::logic_error("no such table in the store; it was deleted or never opened");
  }
  return tables_[table];
}

void StoreImpl::checkKey(Bytes key) const {
  if (key.empty() || key.size() > keyLimit) {
    throw std::invalid_argument("a key of " + std::to_string(key.size()) +
                                " bytes cannot be stored; 1 to 2048 bytes can");
  }
}

// The read transaction is set aside before each write to LMDB, lest its pages stay unused.
void StoreImpl::setAside() {
  read_.setAside();
  for (Found& found : found_) found.keySize = 0;
}

std::optional<Bytes> StoreImpl::get(TableNumber table, Bytes key) {
  checkKey(key);
  const Table& of = at(table);
  const uint64_t hash = writes_.hash(table, key);
  if (const PendingRecord* record = writes_.find(table, key, hash)) {
    if (record->erased) return std::nullopt;
    return record->value();
  }
  Bytes value;
  if (of.cleared || committed(table, key, hash, &value) != Presence::present) return std::nullopt;
  return value;
}

StoreImpl::Presence StoreImpl::committed(TableNumber table, Bytes key, uint64_t hash,
                                         Bytes* value) {
  Found& slot = found_[hash % found_.size()];
  if (slot.keySize == key.size() && slot.hash == hash && slot.table == table &&
      std::memcmp(slot.key.data(), key.data(), key.size()) == 0) {
    *value = slot.value;
    if (slot.damaged) return Presence::damaged;
    return slot.present ? Presence::present : Presence::absent;
  }
  const int error = findRecord(read_.begin(), tables_[table].dbi, key, value);
  const bool damaged = error == damagedRecord;
  if (damaged) noteDamage(table, key);
  if (error != MDB_SUCCESS && error != MDB_NOTFOUND && !damaged) {
    failed(error, environment_->directory());
  }
  const bool present = error != MDB_NOTFOUND;
  if (key.size() <= slot.key.size()) {
    slot = {hash, table, present, damaged, static_cast<uint8_t>(key.size()), slot.key, *value};
    std::memcpy(slot.key.data(), key.data(), key.size());
  }
  if (damaged) return Presence::damaged;
  return present ? Presence::present : Presence::absent;
}

void StoreImpl::noteDamage(TableNumber table, Bytes key) {
  const DamagedRecord record{tables_[table].name, std::string(asText(key))};
  if (knownDamaged_.insert(record).second) damaged_.push_back(record);
}

bool StoreImpl::isPending(TableNumber table, Bytes key) {
  return writes_.find(table, key, writes_.hash(table, key)) != nullptr;
}

void StoreImpl::eraseDamaged(std::span<const DamagedRecord> records) {
  inTransaction([&](MDB_txn* txn) {
    environment_->allocateRoom({.pages = 16 + 8 * records.size()});
    for (const DamagedRecord& record : records) {
      const auto number = numbers_.find(record.table);
      if (number == numbers_.end() || isPending(number->second, asBytes(record.key))) continue;
      MDB_cursor* cursor = nullptr;
      check(mdb_cursor_open(txn, tables_[number->second].dbi, &cursor), environment_->directory());
      const int error = eraseDamagedRecord(cursor, asBytes(record.key));
      if (error != MDB_NOTFOUND) check(error, environment_->directory());
    }
  });
  for (const DamagedRecord& record : records) knownDamaged_.erase(record);
}

// The record of the write set; a new one does not count yet.
PendingRecord& StoreImpl::pending(TableNumber table, Bytes key) {
  checkKey(key);
  Table& of = at(table);
  const uint64_t hash = writes_.hash(table, key);
  if (PendingRecord* record = writes_.find(table, key, hash)) return *record;
  PendingRecord& record = writes_.add(table, key, hash);
  record.erased = true;
  const Found& slot = found_[hash % found_.size()];
  if (of.cleared) {
    record.storedBefore = StoredBefore::absent;
  } else if (slot.keySize == key.size() && slot.hash == hash && slot.table == table &&
             std::memcmp(slot.key.data(), key.data(), key.size()) == 0) {
    record.storedBefore = slot.present ? StoredBefore::present : StoredBefore::absent;
    of.delta -= slot.present ? 1 : 0;
  } else {
    of.unresolved.push_back(writes_.indexOf(record));
  }
  return record;
}

void StoreImpl::resolve(Table& table, PendingRecord& record) const {
  if (record.storedBefore != StoredBefore::unknown) return;
  Bytes value;
  const int error = findRecord(read_.begin(), table.dbi, record.key(), &value);
  const bool absent = error == MDB_NOTFOUND;
  if (!absent && error != damagedRecord) check(error, environment_->directory());
  record.storedBefore = absent ? StoredBefore::absent : StoredBefore::present;
  table.delta += (record.erased ? 0 : 1) - (absent ? 0 : 1);
}

void StoreImpl::erasedIs(Table& table, PendingRecord& record, bool erased) {
  if (record.erased == erased) return;
  record.erased = erased;
  if (record.storedBefore != StoredBefore::unknown) table.delta += erased ? -1 : 1;
}

std::span<uint8_t> StoreImpl::reserve(TableNumber table, Bytes key, size_t size) try {
  PendingRecord& record = pending(table, key);
  writes_.sizeIs(record, size);
  erasedIs(tables_[table], record, false);
  return record.value();
} catch (const std::bad_alloc&) {
  failed(ENOMEM, environment_->directory());
}

// A damaged record is there all the same.
bool StoreImpl::isThere(TableNumber table, Bytes key) {
  checkKey(key);
  const Table& of = at(table);
  const uint64_t hash = writes_.hash(table, key);
  if (const PendingRecord* record = writes_.find(table, key, hash)) return !record->erased;
  Bytes value;
  return !of.cleared && committed(table, key, hash, &value) != Presence::absent;
}

bool StoreImpl::erase(TableNumber table, Bytes key) {
  if (!isThere(table, key)) return false;
  erasedIs(tables_[table], pending(table, key), true);
  return true;
}

void StoreImpl::eraseAll(TableNumber table) {
  Table& of = at(table);
  for (size_t i = 0; i < writes_.size(); ++i) {
    PendingRecord& record = writes_.record(i);
    if (record.table != table) continue;
    record.erased = true;
    record.storedBefore = StoredBefore::absent;
  }
  of.unresolved.clear();
  of.delta = 0;
  of.cleared = anyCleared_ = true;
}

size_t StoreImpl::count(TableNumber table) const {
  Table& of = const_cast<StoreImpl*>(this)->at(table);
  for (const uint32_t index : of.unresolved) resolve(of, writes_.record(index));
  of.unresolved.clear();
  MDB_stat stat{};
  if (!of.cleared) check(mdb_stat(read_.begin(), of.dbi, &stat), environment_->directory());
  return static_cast<size_t>(static_cast<int64_t>(stat.ms_entries) + of.delta);
}

size_t StoreImpl::forEach(TableNumber table, const Visit& visit, Bytes from) {
  size_t passedOver = 0;
  const auto damaged = [&](Bytes key) {
    noteDamage(table, key);
    ++passedOver;
  };
  check(visitRecords(read_.begin(), at(table).dbi, visit, from, damaged),
        environment_->directory());
  return passedOver;
}

void StoreImpl::commit(Filling filling) {
  if (!dirty()) return;
  try {
    inTransaction([&](MDB_txn* txn) { writeAll(txn, filling); });
  } catch (...) {
    discard();
    throw;
  }
  discard();
  // Readers that were killed would keep pages from being used again.
  if (++commits_ % 256 == 0 || std::exchange(readerGone_, false)) releaseDeadReaders();
}

void StoreImpl::handleReaderGone() {
  releaseDeadReaders();
  readerGone_ = true;
}

// The first records of `order`, as far as they are of one table.
std::span<const uint32_t> StoreImpl::tableRun(std::span<const uint32_t> order) const {
  const TableNumber table = writes_.record(order[0]).table;
  size_t size = 1;
  while (size < order.size() && writes_.record(order[size]).table == table) ++size;
  return order.first(size);
}

void StoreImpl::writeAll(MDB_txn* txn, Filling filling) {
  const std::vector<uint32_t>& order = writes_.sorted();
  Room room{.pages = 16};  // for the tree of tables
  for (std::span rest(order); !rest.empty();) {
    const auto run = tableRun(rest);
    const Table& table = tables_[writes_.record(run[0]).table];
    if (table.exists) {
      MDB_stat tree{};
      check(mdb_stat(txn, table.dbi, &tree), environment_->directory());
      addRoomFor(tree, writes_, run, environment_->pageSize(), &room);
    }
    rest = rest.subspan(run.size());
  }
  room.spare = pagesLeft(filling, room.pages);
  environment_->allocateRoom(room);

  for (const Table& table : tables_) {
    if (table.cleared && table.exists)
      check(mdb_drop(txn, table.dbi, 0), environment_->directory());
  }
  for (std::span rest(order); !rest.empty();) {
    const auto run = tableRun(rest);
    const Table& table = tables_[writes_.record(run[0]).table];
    if (table.exists) {
      MDB_cursor* cursor = nullptr;
      check(mdb_cursor_open(txn, table.dbi, &cursor), environment_->directory());
      writeTable(cursor, table, run);
    }
    rest = rest.subspan(run.size());
  }
}

// LMDB closes a write transaction's cursors when the transaction ends.
void StoreImpl::writeTable(MDB_cursor* cursor, const Table& table,
                           std::span<const uint32_t> order) {
  for (const uint32_t index : order) {
    const PendingRecord& record = writes_.record(index);
    int error = MDB_SUCCESS;
    if (!record.erased) {
      error = putRecord(cursor, record.key(), record.value());
    } else if (!table.cleared) {
      error = eraseRecord(cursor, record.key());
      if (error == MDB_NOTFOUND) error = MDB_SUCCESS;
    }
    check(error, environment_->directory());
  }
}

void StoreImpl::discard() {
  writes_.clear();
  for (Table& table : tables_) {
    table.cleared = false;
    table.delta = 0;
    table.unresolved.clear();
  }
  anyCleared_ = false;
}

size_t StoreImpl::bytesUsed() const {
  MDB_envinfo info{};
  check(mdb_env_info(environment_->handle(), &info), environment_->directory());
  return (info.me_last_pgno + 1) * environment_->pageSize();
}

std::unique_ptr<WriterLock> lockDirectory(const std::string& directory) {
  prepareDirectory(directory);
  requireRegularFiles(directory, Purpose::write);
  return std::make_unique<WriterLock>(directory);
}

std::unique_ptr<Store> openStore(std::unique_ptr<WriterLock> lock, const StoreOptions& options) {
  auto environment = sharedEnvironment(options, Purpose::write);
  return std::make_unique<StoreImpl>(std::move(lock), std::move(environment));
}

bool mayPass(Trouble trouble) {
  return trouble == Trouble::unavailable || trouble == Trouble::unwritable ||
         trouble == Trouble::full;
}

}  // namespace

std::unique_ptr<Store> Store::open(const StoreOptions& options) {
  using Clock = std::chrono::steady_clock;
  constexpr std::chrono::milliseconds pause{50};
  const auto end = Clock::now() + options.patience;
  for (;;) {
    try {
      return openStore(lockDirectory(options.directory), options);
    } catch (const StoreError& error) {
      if (!mayPass(error.trouble) || Clock::now() + pause > end) throw;
    }
    std::this_thread::sleep_for(pause);
  }
}

std::unique_ptr<Store> Store::rebuild(const StoreOptions& options, Trouble why,
                                      std::string* movedTo) {
  auto lock = lockDirectory(options.directory);
  const std::string place = moveAside(options.directory, why);
  if (movedTo) *movedTo = place;
  return openStore(std::move(lock), options);
}

void Store::put(TableNumber table, Bytes key, Bytes value) {
  const std::span<uint8_t> room = reserve(table, key, value.size());
  if (!value.empty()) std::memcpy(room.data(), value.data(), value.size());
}

}  // namespace Brine
