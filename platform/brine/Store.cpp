// The writer: a write set over one LMDB environment.
#include "platform/brine/Store.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "platform/brine/Environment.h"
#include "platform/brine/Records.h"
#include "platform/brine/WriteSet.h"

namespace Brine {
namespace {

namespace fs = std::filesystem;

// Who holds it is the one writer of the directory. The kernel drops it with the process.
class WriterLock {
 public:
  explicit WriterLock(const std::string& directory) {
    const std::string path = directory + "/brine.writer";
    file_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (file_ < 0) failed(errno == ENOENT ? ENOTDIR : errno, directory);
    if (flock(file_, LOCK_EX | LOCK_NB) == 0) return;
    const int error = errno;
    ::close(file_);
    if (error != EWOULDBLOCK) failed(error, directory);
    throw StoreError(Trouble::busy, "another process writes to the state directory " + directory +
                                        "; stop it or choose another directory");
  }
  ~WriterLock() { ::close(file_); }
  WriterLock(const WriterLock&) = delete;
  WriterLock& operator=(const WriterLock&) = delete;

 private:
  int file_ = -1;
};

void createDirectory(const std::string& directory) {
  std::error_code error;
  if (fs::is_directory(directory, error)) return;
  fs::create_directories(fs::path(directory).parent_path(), error);
  if (mkdir(directory.c_str(), 0700) == 0 || errno == EEXIST) return;
  failed(errno == ENOENT ? ENOTDIR : errno, directory);
}

// Where a damaged store goes: beside the directory, or into it when that is a mount point or its
// parent is not ours to write.
void moveAside(const std::string& directory) {
  for (const std::string& base : {directory + ".damaged-", directory + "/damaged-"}) {
    unsigned number = 1;
    while (fs::exists(base + std::to_string(number))) ++number;
    const std::string aside = base + std::to_string(number);
    if (mkdir(aside.c_str(), 0700) != 0) continue;
    std::error_code error;
    fs::rename(dataPath(directory), dataPath(aside), error);
    if (error && error != std::errc::no_such_file_or_directory) {
      fs::remove(aside);
      continue;
    }
    fs::rename(lockPath(directory), lockPath(aside), error);
    if (error) fs::remove(lockPath(directory), error);
    return;
  }
  failed(EACCES, directory);
}

struct Table {
  std::string name;
  MDB_dbi dbi = 0;
  bool exists = true;
  // Of the write set:
  bool cleared = false;              // eraseAll() ran; committed records do not count any more
  int64_t delta = 0;                 // what the resolved records add to the committed count
  std::vector<uint32_t> unresolved;  // records of which we do not know whether they were there
};

// What get() last found in the committed state, so that looking at a record and then writing it
// costs one descent.
struct Found {
  uint64_t hash = 0;
  TableNumber table = 0;
  bool present = false;
  uint8_t keySize = 0;  // 0: nothing remembered
  std::array<uint8_t, 64> key{};
  Bytes value;
};

class StoreImpl final : public Store {
 public:
  StoreImpl(std::unique_ptr<WriterLock> lock, std::shared_ptr<Environment> environment)
      : lock_(std::move(lock)), environment_(std::move(environment)), read_(*environment_) {
    mdb_reader_check(environment_->handle(), nullptr);
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
  void forEach(TableNumber table, const Visit& visit, Bytes from) override;
  bool dirty() const override { return writes_.size() > 0 || anyCleared_; }
  void commit() override;
  void discard() override;
  size_t bytesUsed() const override;

 private:
  void openTables();
  Table& at(TableNumber table);
  void checkKey(Bytes key) const;
  PendingRecord& pending(TableNumber table, Bytes key);
  std::optional<Bytes> committed(TableNumber table, Bytes key, uint64_t hash);
  void resolve(Table& table, PendingRecord& record) const;
  void erasedIs(Table& table, PendingRecord& record, bool erased);
  void writeAll(MDB_txn* txn);
  uint64_t pagesFor(MDB_txn* txn, const Table& table, std::span<const uint32_t> order) const;
  std::span<const uint32_t> tableRun(std::span<const uint32_t> order) const;
  void writeTable(MDB_cursor* cursor, const Table& table, std::span<const uint32_t> order);
  void setAside();

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
};

bool isOwn(std::string_view name) { return name == metaTable; }

std::vector<std::string> namesIn(MDB_txn* txn, const std::string& directory) {
  std::vector<std::string> names;
  check(recordsVisited(txn, 1,
                       [&](Bytes key, Bytes) { return names.emplace_back(asText(key)), true; }, {}),
        directory);
  return names;
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

TableNumber StoreImpl::table(std::string_view name) {
  if (const auto known = numbers_.find(name); known != numbers_.end()) return known->second;
  setAside();
  const std::string text(name);
  const std::lock_guard guard(environment_->handlesMutex);
  environment_->allocateRoom(8);
  Transaction txn(*environment_, 0);
  MDB_dbi dbi = 0;
  check(mdb_dbi_open(txn.handle(), text.c_str(), MDB_CREATE, &dbi), environment_->directory());
  txn.commit();
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
  setAside();
  {
    const std::lock_guard guard(environment_->handlesMutex);
    environment_->allocateRoom(8);
    Transaction txn(*environment_, 0);
    check(mdb_drop(txn.handle(), table.dbi, 1), environment_->directory());
    txn.commit();
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
  return of.cleared ? std::nullopt : committed(table, key, hash);
}

std::optional<Bytes> StoreImpl::committed(TableNumber table, Bytes key, uint64_t hash) {
  Found& slot = found_[hash % found_.size()];
  if (slot.keySize == key.size() && slot.hash == hash && slot.table == table &&
      std::memcmp(slot.key.data(), key.data(), key.size()) == 0) {
    return slot.present ? std::optional(slot.value) : std::nullopt;
  }
  Bytes value;
  const int error = recordFound(read_.begun(), tables_[table].dbi, key, &value);
  if (error != MDB_SUCCESS && error != MDB_NOTFOUND) failed(error, environment_->directory());
  const bool present = error == MDB_SUCCESS;
  if (key.size() <= slot.key.size()) {
    slot = {hash, table, present, static_cast<uint8_t>(key.size()), slot.key, value};
    std::memcpy(slot.key.data(), key.data(), key.size());
  }
  return present ? std::optional(value) : std::nullopt;
}

// The record of the write set, made when there is none; a fresh one does not count yet.
PendingRecord& StoreImpl::pending(TableNumber table, Bytes key) {
  checkKey(key);
  Table& of = at(table);
  const uint64_t hash = writes_.hash(table, key);
  if (PendingRecord* record = writes_.find(table, key, hash)) return *record;
  PendingRecord& record = writes_.add(table, key, hash);
  record.erased = true;
  const Found& slot = found_[hash % found_.size()];
  if (of.cleared) {
    record.committed = Committed::absent;
  } else if (slot.keySize == key.size() && slot.hash == hash && slot.table == table &&
             std::memcmp(slot.key.data(), key.data(), key.size()) == 0) {
    record.committed = slot.present ? Committed::present : Committed::absent;
    of.delta -= slot.present ? 1 : 0;
  } else {
    of.unresolved.push_back(writes_.indexOf(record));
  }
  return record;
}

void StoreImpl::resolve(Table& table, PendingRecord& record) const {
  if (record.committed != Committed::unknown) return;
  Bytes value;
  const int error = recordFound(read_.begun(), table.dbi, record.key(), &value);
  if (error != MDB_SUCCESS && error != MDB_NOTFOUND) failed(error, environment_->directory());
  record.committed = error == MDB_SUCCESS ? Committed::present : Committed::absent;
  table.delta += (record.erased ? 0 : 1) - (error == MDB_SUCCESS ? 1 : 0);
}

void StoreImpl::erasedIs(Table& table, PendingRecord& record, bool erased) {
  if (record.erased == erased) return;
  record.erased = erased;
  if (record.committed != Committed::unknown) table.delta += erased ? -1 : 1;
}

std::span<uint8_t> StoreImpl::reserve(TableNumber table, Bytes key, size_t size) try {
  PendingRecord& record = pending(table, key);
  writes_.sizeIs(record, size);
  erasedIs(tables_[table], record, false);
  return record.value();
} catch (const std::bad_alloc&) {
  failed(ENOMEM, environment_->directory());
}

bool StoreImpl::erase(TableNumber table, Bytes key) {
  if (!get(table, key)) return false;
  erasedIs(tables_[table], pending(table, key), true);
  return true;
}

void StoreImpl::eraseAll(TableNumber table) {
  Table& of = at(table);
  for (size_t i = 0; i < writes_.size(); ++i) {
    PendingRecord& record = writes_.record(i);
    if (record.table != table) continue;
    record.erased = true;
    record.committed = Committed::absent;
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
  if (!of.cleared) check(mdb_stat(read_.begun(), of.dbi, &stat), environment_->directory());
  return static_cast<size_t>(static_cast<int64_t>(stat.ms_entries) + of.delta);
}

void StoreImpl::forEach(TableNumber table, const Visit& visit, Bytes from) {
  check(recordsVisited(read_.begun(), at(table).dbi, visit, from), environment_->directory());
}

void StoreImpl::commit() {
  if (!dirty()) return;
  setAside();
  try {
    Transaction txn(*environment_, 0);
    writeAll(txn.handle());
    txn.commit();
  } catch (...) {
    discard();
    throw;
  }
  discard();
  // Readers that were killed would keep pages from being used again.
  if (++commits_ % 256 == 0) mdb_reader_check(environment_->handle(), nullptr);
}

// The first records of `order`, as far as they are of one table.
std::span<const uint32_t> StoreImpl::tableRun(std::span<const uint32_t> order) const {
  const TableNumber table = writes_.record(order[0]).table;
  size_t size = 1;
  while (size < order.size() && writes_.record(order[size]).table == table) ++size;
  return order.first(size);
}

void StoreImpl::writeAll(MDB_txn* txn) {
  const std::vector<uint32_t>& order = writes_.sorted();
  uint64_t pages = 16;  // for the tree of tables
  for (std::span rest(order); !rest.empty();) {
    const auto run = tableRun(rest);
    const Table& table = tables_[writes_.record(run[0]).table];
    if (table.exists) pages += pagesFor(txn, table, run);
    rest = rest.subspan(run.size());
  }
  environment_->allocateRoom(pages);

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

// At most so many pages do the table's writes take: a copy of each page they reach, and what splits
// add. A page that was split has room for a quarter page of small records before it splits again;
// each large record may split one of its own.
uint64_t StoreImpl::pagesFor(MDB_txn* txn, const Table& table,
                             std::span<const uint32_t> order) const {
  MDB_stat stat{};
  check(mdb_stat(txn, table.dbi, &stat), environment_->directory());
  const size_t pageSize = environment_->pageSize();
  uint64_t small = 0, large = 0, overflow = 0;
  for (const uint32_t index : order) {
    const PendingRecord& record = writes_.record(index);
    const uint64_t size = 32 + uint64_t{record.keySize} * 2 + record.valueSize;
    if (size <= pageSize / 8) {
      small += size;
    } else {
      ++large;
      if (size > pageSize / 4) overflow += 1 + size / pageSize;
    }
  }
  const uint64_t records = order.size();
  const uint64_t depth = stat.ms_depth + 1;
  const uint64_t leaves = std::min<uint64_t>(records, stat.ms_leaf_pages);
  const uint64_t branches = std::min<uint64_t>(records * depth, stat.ms_branch_pages);
  const uint64_t splits = std::min(2 * records, leaves + 4 * small / pageSize + 2 * large + 1);
  // Splits reach upwards, but each branch page takes several children first.
  return leaves + branches + splits + splits / 2 + depth + overflow;
}

// LMDB closes a write transaction's cursors when the transaction ends.
void StoreImpl::writeTable(MDB_cursor* cursor, const Table& table,
                           std::span<const uint32_t> order) {
  for (const uint32_t index : order) {
    const PendingRecord& record = writes_.record(index);
    int error = MDB_SUCCESS;
    if (!record.erased) {
      uint8_t* room = nullptr;
      error = recordPut(cursor, record.key(), record.valueSize, &room);
      if (error == MDB_SUCCESS) std::memcpy(room, record.valueBytes, record.valueSize);
    } else if (!table.cleared) {
      error = recordErased(cursor, record.key());
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

}  // namespace

std::unique_ptr<Store> Store::open(const StoreOptions& options) {
  createDirectory(options.directory);
  auto lock = std::make_unique<WriterLock>(options.directory);
  auto environment = Environment::open(options, Environment::Mode::write);
  return std::make_unique<StoreImpl>(std::move(lock), std::move(environment));
}

std::unique_ptr<Store> Store::rebuild(const StoreOptions& options) {
  createDirectory(options.directory);
  auto lock = std::make_unique<WriterLock>(options.directory);
  moveAside(options.directory);
  auto environment = Environment::open(options, Environment::Mode::write);
  return std::make_unique<StoreImpl>(std::move(lock), std::move(environment));
}

void Store::put(TableNumber table, Bytes key, Bytes value) {
  const std::span<uint8_t> room = reserve(table, key, value.size());
  if (!value.empty()) std::memcpy(room.data(), value.data(), value.size());
}

}  // namespace Brine
