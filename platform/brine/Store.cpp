// The writer: tables of records over the slots of one file.
#include "platform/brine/Store.h"

#include <absl/container/flat_hash_map.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <set>
#include <thread>
#include <utility>

#include "platform/brine/ChangeLog.h"
#include "platform/brine/KeyIndex.h"
#include "platform/brine/RecordSum.h"
#include "platform/brine/Recovery.h"
#include "platform/brine/SetAside.h"
#include "platform/brine/SlotSpace.h"
#include "platform/brine/StateDirectory.h"
#include "platform/brine/StoreFile.h"

namespace Brine {
namespace {

// Who holds it is the one writer of the directory. The kernel drops it with the process.
class WriterLock {
 public:
  explicit WriterLock(const std::string& directory) {
    file_ = openedFile(directory, writerPath(directory));
    if (flock(file_, LOCK_EX | LOCK_NB) == 0) return;
    const int error = errno;
    ::close(file_);
    if (error != EWOULDBLOCK) failed(error, directory, writerPath(directory));
    throw StoreError(Trouble::busy, "another process writes to the state directory " + directory +
                                        "; stop it or choose another directory");
  }
  ~WriterLock() { ::close(file_); }
  WriterLock(const WriterLock&) = delete;
  WriterLock& operator=(const WriterLock&) = delete;

 private:
  int file_ = -1;
};

// The list of tables is a table itself: under each name its number (u32).
constexpr TableNumber directoryTable = 1;

class StoreImpl final : public Store {
 public:
  StoreImpl(std::unique_ptr<WriterLock> lock, StoreFile file);

  TableNumber table(std::string_view name) override;
  bool hasTable(std::string_view name) const override { return numbers_.contains(name); }
  std::vector<std::string> tableNames() const override;
  void tableDel(std::string_view name) override;
  std::optional<Bytes> get(TableNumber table, Bytes key) const override;
  std::optional<Record> record(TableNumber table, Bytes key) const override;
  bool contains(TableNumber table, Bytes key) const override {
    return at(table).index.find(key) != 0;
  }
  uint32_t keyHash(Bytes key) const override { return at(directoryTable).index.hash(key); }
  std::optional<Record> recordOf(TableNumber table, uint32_t keyHash,
                                 uint64_t owner) const override;
  void load(TableNumber table, std::span<const uint32_t> keyHashes) const override {
    at(table).index.load(keyHashes);
  }
  Written write(TableNumber table, Bytes key, size_t valueSize,
                const WriteOptions& options) override;
  bool erase(TableNumber table, Bytes key) override;
  uint64_t eraseFor(TableNumber table, Bytes key, uint64_t owner) override;
  void eraseAll(TableNumber table) override;
  size_t count(TableNumber table) const override { return at(table).index.size(); }
  using Store::forEachRecord;
  size_t forEachRecord(TableNumber table, const RecordVisit& visit, Position* position) override;
  std::vector<DamagedRecord> takeDamagedRecords() override { return std::exchange(damaged_, {}); }
  void eraseDamaged(std::span<const DamagedRecord> records) override;
  bool dirty() const override { return log_.anyOpen() || typesChanged_; }
  uint64_t showAhead() override;
  void commit() override;
  void discard() override;
  uint64_t committedSequence() const override { return log_.committed(); }
  uint64_t nextSequence() const override { return log_.next(); }
  uint64_t settledSequence() const override { return log_.settled(); }
  // The ring holds them, and as many changes that undo them.
  size_t mostUndoneLater() const override {
    return file_.head().changes / 2 - file_.head().changes / 16;
  }
  std::optional<Change> change(uint64_t sequence) const override;
  uint64_t undo(uint64_t sequence) override;
  void settle() override { log_.settle(); }
  bool isUnsettled(const Record& record) const override { return record.sequence > log_.settled(); }
  void trim(uint64_t sequence, size_t atMost) override { log_.trim(sequence, atMost); }
  uint64_t trimmedUpTo() const override { return log_.trimmed(); }
  uint64_t typesVersion() const override { return file_.word(CommitWord::typesVersion); }
  void typesChanged() override { typesChanged_ = true; }
  std::string_view identity() const override { return {file_.head().identity, 16}; }
  size_t bytesUsed() const override { return slots_.pagesUsed() * pageSize; }

 private:
  struct Table {
    Table(std::string name, const StoreFile& file) : name(std::move(name)), index(file) {}
    std::string name;
    KeyIndex index;
  };

  void recover();
  void requireAll(const FormerSlots& former);
  bool isUsable(Ref ref, uint32_t table) const;
  Table& add(TableNumber number, const std::string& name);
  Table& at(TableNumber number) const;
  Table* find(TableNumber number) const;
  void list(const std::string& name, TableNumber number);
  void checkKey(Bytes key) const;
  Ref soundSlot(TableNumber number, Ref ref) const;
  Ref allocate(TableNumber table, size_t bytes);
  void enterChecksum(const LoggedChange& change);
  Ref newSlot(TableNumber table, Bytes key, size_t valueSize, const WriteOptions& options);
  Bytes keyOf(Ref ref) const { return {file_.slot(ref).key(), file_.slot(ref).keySize}; }
  bool isOpen(Ref ref) const { return log_.isOpen(numberIn(file_.slot(ref).begin)); }
  void endIs(Ref ref, uint64_t sequence);
  void beginIs(Ref ref, uint64_t sequence);
  void free(Ref ref);
  void replaceOpen(Ref former, LoggedChange* change);
  void takeBack(const LoggedChange& change);
  void takeBackFrom(uint64_t sequence, Bytes key);
  void noteDamage(TableNumber table, Ref ref) const;
  bool isStillDamaged(TableNumber table, Ref ref) const;
  void index(TableNumber table, const std::set<Ref>& without);

  // Released last to first: the lock outlives the file.
  std::unique_ptr<WriterLock> lock_;
  mutable StoreFile file_;
  SlotSpace slots_;
  ChangeLog log_;
  RecordSum sum_;
  // By number. Numbers are never used twice, so that memory for each would grow for ever.
  absl::flat_hash_map<TableNumber, std::unique_ptr<Table>> tables_;
  mutable TableNumber lastNumber_ = 0;  // that was looked for, and its table; 0: none was
  mutable Table* lastTable_ = nullptr;
  std::map<std::string, TableNumber, std::less<>> numbers_;
  bool typesChanged_ = false;
  uint64_t shownAhead_ = 0;                     // the last change that showAhead() has shown
  mutable std::vector<DamagedRecord> damaged_;  // not taken yet
  mutable std::map<DamagedRecord, std::set<Ref>> damagedSlots_;
};

StoreImpl::StoreImpl(std::unique_ptr<WriterLock> lock, StoreFile file)
    : lock_(std::move(lock)),
      file_(std::move(file)),
      slots_(file_),
      log_(file_, slots_),
      sum_(file_) {
  recover();
}

void StoreImpl::recover() {
  FormerSlots former;
  const auto recoverOne = [&](TableNumber number) {
    sum_.tableIs(number, recoverTable(file_, slots_, number, at(number).index, former,
                                      [&](Ref ref) { noteDamage(number, ref); }));
  };
  add(directoryTable, "brine/tables");
  recoverOne(directoryTable);
  if (!damagedSlots_.empty()) damaged(file_.directory(), "its list of tables");
  forEach(directoryTable, [&](Bytes key, Bytes value) {
    TableNumber number = 0;
    if (value.size() == sizeof number) std::memcpy(&number, value.data(), sizeof number);
    const bool wasGivenOut = number <= file_.word(CommitWord::lastTable);
    if (number <= directoryTable || !wasGivenOut) {
      damaged(file_.directory(), "its list of tables");
    }
    add(number, std::string(asText(key)));
    numbers_[std::string(asText(key))] = number;
    return true;
  });
  const std::vector<TableNumber> numbers = slots_.tables();
  const auto isListed = [&](TableNumber number) { return find(number) != nullptr; };
  for (const TableNumber number : numbers) {
    if (number != directoryTable && isListed(number)) recoverOne(number);
  }
  requireAll(former);
  for (const TableNumber number : numbers) {
    if (isListed(number)) continue;
    log_.forgetTable(number);  // its writer was killed before it did
    slots_.releaseTable(number);
  }
  log_.recallUnsettled([this](const RingEntry& change) {
    return isUsable(change.now, change.table) && isUsable(change.before, change.table);
  });
  std::ranges::sort(former.dead, {}, &DeadSlot::end);
  for (const DeadSlot& slot : former.dead) log_.deadIs(slot.ref, slot.end);
  log_.abandon(former.open);
  commit();
  slots_.giveBackMemory();
}

// 0 is no slot, which any change may have.
bool StoreImpl::isUsable(Ref ref, uint32_t table) const {
  if (ref == 0) return true;
  return slots_.isOf(ref, table) && isSound(file_, ref, slots_.slotSize(ref), table);
}

// Damaged records are in the sum, or, when a writer was killed as it erased them, not any more.
void StoreImpl::requireAll(const FormerSlots& former) {
  const uint64_t committed = log_.committed();
  if (sum_.isRight(committed, 0)) return;
  if (!former.anyUnreadable && !sum_.isRight(committed, -former.damagedSum)) {
    damaged(file_.directory(), "records are missing");
  }
  sum_.write(committed);
}

StoreImpl::Table& StoreImpl::add(TableNumber number, const std::string& name) {
  lastNumber_ = 0;
  return *(tables_[number] = std::make_unique<Table>(name, file_));
}

StoreImpl::Table& StoreImpl::at(TableNumber number) const {
  Table* const table = find(number);
  if (!table) {
    throw std::logic_error("no such table in the store; it was deleted or never opened");
  }
  return *table;
}

// Null without one. Most look-ups are for the same table as the one before.
StoreImpl::Table* StoreImpl::find(TableNumber number) const {
  if (number != lastNumber_) {
    const auto found = tables_.find(number);
    lastTable_ = found == tables_.end() ? nullptr : found->second.get();
    lastNumber_ = number;
  }
  return lastTable_;
}

TableNumber StoreImpl::table(std::string_view name) {
  if (const auto known = numbers_.find(name); known != numbers_.end()) return known->second;
  const auto last = std::max<uint64_t>(file_.word(CommitWord::lastTable), directoryTable);
  const auto number = static_cast<TableNumber>(last + 1);
  file_.wordIs(CommitWord::lastTable, number);
  const std::string text(name);
  list(text, number);
  add(number, text);
  numbers_[text] = number;
  return number;
}

void StoreImpl::list(const std::string& name, TableNumber number) {
  std::memcpy(reserve(directoryTable, asBytes(name), sizeof number).data(), &number, sizeof number);
}

std::vector<std::string> StoreImpl::tableNames() const {
  std::vector<std::string> names;
  for (const auto& [name, number] : numbers_) names.push_back(name);
  return names;
}

// Its records go once no opening can find the table.
void StoreImpl::tableDel(std::string_view name) {
  const auto known = numbers_.find(name);
  if (known == numbers_.end()) return;
  const TableNumber number = known->second;
  erase(directoryTable, asBytes(name));
  sum_.forgetTable(number);
  commit();
  log_.forgetTable(number);
  slots_.releaseTable(number);
  tables_.erase(number);
  lastNumber_ = 0;
  numbers_.erase(known);
  std::erase_if(damagedSlots_, [&](const auto& one) { return one.first.table == name; });
}

void StoreImpl::checkKey(Bytes key) const {
  if (key.empty() || key.size() > keyLimit) {
    throw std::invalid_argument("a key of " + std::to_string(key.size()) +
                                " bytes cannot be stored; 1 to 2048 bytes can");
  }
}

// 0 for a damaged record, and for 0.
Ref StoreImpl::soundSlot(TableNumber number, Ref ref) const {
  // The checksum of an open change is yet to come.
  if (ref == 0 || isOpen(ref) || isSound(file_, ref, slots_.slotSize(ref), number)) return ref;
  noteDamage(number, ref);
  return 0;
}

std::optional<Bytes> StoreImpl::get(TableNumber table, Bytes key) const {
  checkKey(key);
  const Ref ref = soundSlot(table, at(table).index.find(key));
  if (ref == 0) return std::nullopt;
  return Bytes{file_.slot(ref).value(), file_.slot(ref).valueSize};
}

std::optional<Record> StoreImpl::record(TableNumber table, Bytes key) const {
  checkKey(key);
  const Ref ref = soundSlot(table, at(table).index.find(key));
  if (ref == 0) return std::nullopt;
  return recordIn(file_, ref);
}

std::optional<Record> StoreImpl::recordOf(TableNumber table, uint32_t keyHash,
                                          uint64_t owner) const {
  const Ref ref = soundSlot(table, at(table).index.findOwner(keyHash, owner));
  if (ref == 0) return std::nullopt;
  return recordIn(file_, ref);
}

void StoreImpl::beginIs(Ref ref, uint64_t sequence) {
  store(file_.slot(ref).begin, stamped(sequence, beginSalt(ref)));
}

void StoreImpl::endIs(Ref ref, uint64_t sequence) {
  store(file_.slot(ref).end, stamped(sequence, endSalt(ref)));
}

void StoreImpl::free(Ref ref) {
  store(file_.slot(ref).begin, 0);
  slots_.release(ref);
}

// Before a record finds no room, former versions go: followers that lag then take a snapshot.
Ref StoreImpl::allocate(TableNumber table, size_t bytes) {
  try {
    return slots_.allocate(table, bytes);
  } catch (const StoreError&) {
    if (!log_.trim(log_.settled(), 0)) throw;
  }
  return slots_.allocate(table, bytes);
}

// Key and sizes are entered, value and attachment are left to the caller.
Ref StoreImpl::newSlot(TableNumber table, Bytes key, size_t valueSize,
                       const WriteOptions& options) {
  if (valueSize > valueLimit || options.attachmentSize > attachmentLimit) {
    throw std::invalid_argument("a record of " + std::to_string(valueSize) + " and " +
                                std::to_string(options.attachmentSize) + " bytes cannot be stored");
  }
  const size_t bytes = SlotHead::size + key.size() + valueSize + options.attachmentSize;
  const Ref ref = allocate(table, bytes);
  SlotHead& slot = file_.slot(ref);
  slot.owner = options.owner;
  slot.valueSize = static_cast<uint32_t>(valueSize);
  slot.keySize = static_cast<uint16_t>(key.size());
  slot.attachmentSize = static_cast<uint16_t>(options.attachmentSize);
  std::memcpy(const_cast<uint8_t*>(slot.key()), key.data(), key.size());
  return ref;
}

Store::Written StoreImpl::write(TableNumber number, Bytes key, size_t valueSize,
                                const WriteOptions& options) {
  checkKey(key);
  Table& table = at(number);
  const Ref ref = newSlot(number, key, valueSize, options);
  SlotHead& slot = file_.slot(ref);
  // The key in the slot outlasts the caller's.
  LoggedChange change{.owner = options.owner,
                      .now = ref,
                      .before = table.index.enter(keyOf(ref), ref),
                      .table = number,
                      .flags = options.unchanged ? RingEntry::unchanged : 0};
  if (change.before != 0 && isOpen(change.before)) replaceOpen(change.before, &change);
  const uint64_t sequence = log_.next();
  if (change.before != 0) endIs(change.before, sequence);
  beginIs(ref, sequence);
  log_.add(change);
  const auto value = const_cast<uint8_t*>(slot.value());
  return {{value, valueSize}, {value + valueSize, options.attachmentSize}, sequence};
}

// A record that is written again in the same transaction for the same owner: followers need not
// hear of the former write. Of another owner's they do.
void StoreImpl::replaceOpen(Ref former, LoggedChange* change) {
  const uint64_t sequence = numberIn(file_.slot(former).begin);
  const LoggedChange logged = log_.at(sequence);
  if (logged.owner != change->owner || logged.isUndo) return;
  change->before = logged.before;
  if (!(logged.flags & RingEntry::unchanged)) change->flags &= ~RingEntry::unchanged;
  log_.voidIs(sequence, ChangeLog::Void::replaced);
  free(former);
}

bool StoreImpl::erase(TableNumber number, Bytes key) {
  checkKey(key);
  const Ref ref = at(number).index.enter(key, 0);
  if (ref == 0) return false;
  endIs(ref, log_.next());
  log_.add({.before = ref, .table = number, .flags = RingEntry::deleted});
  return true;
}

uint64_t StoreImpl::eraseFor(TableNumber number, Bytes key, uint64_t owner) {
  checkKey(key);
  const uint64_t sequence = log_.next();
  Table& table = at(number);
  LoggedChange change{.owner = owner, .table = number, .flags = RingEntry::deleted};
  const Ref ref = table.index.enter(key, 0);
  change.before = ref;
  const bool mayBeSeen = ref != 0 && shownAhead_ > log_.committed();  // a version of it
  if (ref != 0 && isOpen(ref)) replaceOpen(ref, &change);
  if (change.before == 0) {  // followers read the key in a slot all the same
    change.now = newSlot(number, key, 0, {.owner = owner});
    if (!mayBeSeen) change.flags |= RingEntry::unchanged;
    endIs(change.now, sequence);
    beginIs(change.now, sequence);
  } else {
    endIs(change.before, sequence);
  }
  log_.add(change);
  return sequence;
}

void StoreImpl::eraseAll(TableNumber number) {
  std::vector<Ref> all;
  slots_.forEachSlot(number, [&](Ref ref) {
    const SlotHead& slot = file_.slot(ref);
    if (slot.begin != 0 && slot.end == 0) all.push_back(ref);
    return true;
  });
  for (const Ref ref : all) {
    const Bytes key = keyOf(ref);
    const bool fits = key.size() <= std::min(keyLimit, slots_.slotSize(ref) - SlotHead::size);
    if (fits && at(number).index.find(key) == ref) erase(number, key);
  }
}

size_t StoreImpl::forEachRecord(TableNumber number, const RecordVisit& visit, Position* position) {
  size_t passedOver = 0;
  const auto look = [&](Ref ref) {
    if (position) position->next = ref + uint64_t{1};
    const auto counted = counts(file_.slot(ref), ref, log_.committed());
    if (counted && !*counted) return true;
    if (counted && isSound(file_, ref, slots_.slotSize(ref), number)) {
      return visit(recordIn(file_, ref));
    }
    noteDamage(number, ref);
    ++passedOver;
    return true;
  };
  slots_.forEachSlot(number, look, position ? static_cast<Ref>(position->next) : 0);
  return passedOver;
}

void StoreImpl::noteDamage(TableNumber number, Ref ref) const {
  const SlotHead& slot = file_.slot(ref);
  const size_t room = slots_.slotSize(ref) - SlotHead::size;
  const size_t keySize = std::min<size_t>({slot.keySize, keyLimit, room});
  const DamagedRecord record{at(number).name, std::string(asText({slot.key(), keySize})),
                             slot.owner};
  if (damagedSlots_[record].insert(ref).second) damaged_.push_back(record);
}

void StoreImpl::eraseDamaged(std::span<const DamagedRecord> records) {
  for (const DamagedRecord& record : records) {
    const auto found = damagedSlots_.find(record);
    if (found == damagedSlots_.end()) continue;
    std::set<Ref> slots = std::move(found->second);
    damagedSlots_.erase(found);
    const auto number = numbers_.find(record.table);
    if (number == numbers_.end()) continue;
    std::erase_if(slots, [&](Ref ref) { return !isStillDamaged(number->second, ref); });
    index(number->second, slots);
    for (const Ref ref : slots) free(ref);
  }
}

// The slot may be another record's by now, or its record have been written again.
bool StoreImpl::isStillDamaged(TableNumber number, Ref ref) const {
  if (slots_.tableOf(ref) != number) return false;
  const SlotHead& slot = file_.slot(ref);
  if (slot.begin == 0) return false;
  if (!isStamped(slot.begin, beginSalt(ref))) return true;
  if (isOpen(ref)) return false;
  if (slot.end != 0) return !isStamped(slot.end, endSalt(ref));
  return !isSound(file_, ref, slots_.slotSize(ref), number);
}

// Without the damaged slots that are about to go. The key of one may not be that which it was found
// under.
void StoreImpl::index(TableNumber number, const std::set<Ref>& without) {
  KeyIndex fresh(file_);
  uint64_t sum = 0;
  slots_.forEachSlot(number, [&](Ref ref) {
    const SlotHead& slot = file_.slot(ref);
    if (!isStamped(slot.begin, beginSalt(ref)) || without.contains(ref)) return true;
    if (counts(slot, ref, log_.committed()).value_or(false)) sum += sum_.of(ref);
    const bool isNewest = slot.end == 0;
    if (isNewest && (isOpen(ref) || isSound(file_, ref, slots_.slotSize(ref), number))) {
      fresh.enter(keyOf(ref), ref);
    }
    return true;
  });
  sum_.tableIs(number, sum);
  sum_.write(log_.committed());
  at(number).index = std::move(fresh);
}

void StoreImpl::enterChecksum(const LoggedChange& change) {
  if (change.now == 0 || change.isUndo) return;
  SlotHead& slot = file_.slot(change.now);
  slot.checksum = slotChecksum(slot, file_.head().seed, change.table);
}

uint64_t StoreImpl::showAhead() {
  uint64_t sequence = std::max(shownAhead_, log_.committed());
  while (++sequence < log_.next()) enterChecksum(log_.at(sequence));
  return shownAhead_ = log_.next() - 1;
}

void StoreImpl::commit() {
  if (!dirty()) return;
  for (uint64_t sequence = log_.committed() + 1; sequence < log_.next(); ++sequence) {
    const LoggedChange& change = log_.at(sequence);
    const bool isTombstone = change.now != 0 && (change.flags & RingEntry::deleted);
    sum_.change(change.table, isTombstone ? 0 : sum_.of(change.now), sum_.of(change.before));
    if (sequence > shownAhead_) enterChecksum(change);
  }
  if (std::exchange(typesChanged_, false)) {
    file_.wordIs(CommitWord::typesVersion, typesVersion() + 1);
  }
  sum_.write(log_.next() - 1);
  log_.commit();
}

void StoreImpl::discard() {
  for (uint64_t sequence = log_.next(); sequence-- > log_.committed() + 1;) {
    takeBack(log_.at(sequence));
  }
  log_.dropOpen();
  typesChanged_ = false;
  // Tables outlast the transaction that they were made in.
  for (const auto& [name, number] : numbers_) {
    if (at(directoryTable).index.find(asBytes(name)) == 0) list(name, number);
  }
  commit();
}

// Of an open change, the newest of its record.
void StoreImpl::takeBack(const LoggedChange& change) {
  if (change.flags & RingEntry::replaced) return;
  const bool isTombstone = change.now != 0 && (change.flags & RingEntry::deleted);
  if (!isTombstone) {
    at(change.table)
        .index.enter(keyOf(change.now != 0 ? change.now : change.before), change.before);
  }
  if (change.before != 0) store(file_.slot(change.before).end, 0);
  if (change.now == 0) return;
  if (!change.isUndo) return free(change.now);
  SlotHead& slot = file_.slot(change.now);
  store(slot.end, change.formerEnd);
  store(slot.begin, change.formerBegin);
}

// The former version counts as long as nothing is committed, so it is not made a new one.
void StoreImpl::takeBackFrom(uint64_t sequence, Bytes key) {
  const std::string copied(asText(key));  // of a slot that may be freed
  const TableNumber table = log_.at(sequence).table;
  for (uint64_t at = log_.next(); at-- > sequence;) {
    const LoggedChange change = log_.at(at);
    const Ref any = change.before != 0 ? change.before : change.now;
    if (change.table != table || any == 0 || asText(keyOf(any)) != copied) continue;
    takeBack(change);
    log_.voidIs(at, ChangeLog::Void::withdrawn);
  }
}

std::optional<Change> StoreImpl::change(uint64_t sequence) const {
  if (sequence < log_.first() || sequence >= log_.next()) return std::nullopt;
  const LoggedChange& logged = log_.at(sequence);
  if (logged.flags & RingEntry::replaced) return std::nullopt;
  Change change{.table = logged.table, .owner = logged.owner, .before = {}, .now = {}};
  if (logged.before != 0) change.before = recordIn(file_, logged.before);
  const bool isDeletion = logged.flags & RingEntry::deleted;
  if (logged.now != 0 && !isDeletion) change.now = recordIn(file_, logged.now);
  return change;
}

uint64_t StoreImpl::undo(uint64_t sequence) {
  if (sequence < log_.first() || sequence >= log_.next()) return 0;
  const LoggedChange undone = log_.at(sequence);
  const Ref any = undone.before != 0 ? undone.before : undone.now;
  Table* const table = find(undone.table);
  if (any == 0 || !table) return 0;
  const Ref former = undone.before;
  KeyIndex& index = table->index;
  const Ref current = index.find(keyOf(any));
  if (current == former) return 0;
  if (log_.isOpen(sequence)) return takeBackFrom(sequence, keyOf(any)), 0;
  // The record of the last commit must keep its words: only they tell of it after a kill.
  const uint64_t end = former == 0 ? 0 : numberIn(file_.slot(former).end);
  if (log_.isOpen(end)) return takeBackFrom(end, keyOf(any)), 0;
  const uint64_t next = log_.next();
  LoggedChange change{.now = former, .before = current, .table = undone.table};
  if (former != 0) {
    SlotHead& slot = file_.slot(former);
    change.owner = slot.owner;
    change.isUndo = true;
    change.formerBegin = slot.begin;
    change.formerEnd = slot.end;
    beginIs(former, next);
    store(slot.end, 0);
    index.enter(keyOf(former), former);
  } else {
    change.owner = file_.slot(current).owner;
    change.flags = RingEntry::deleted;
    index.enter(keyOf(current), 0);
  }
  if (current != 0) endIs(current, next);
  log_.add(change);
  return next;
}

std::unique_ptr<Store> openStore(const StoreOptions& options) {
  prepareDirectory(options.directory);
  requireRegularFiles(options.directory, Purpose::write);
  auto lock = std::make_unique<WriterLock>(options.directory);
  return std::make_unique<StoreImpl>(std::move(lock), StoreFile::openToWrite(options));
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
      return openStore(options);
    } catch (const StoreError& error) {
      if (!mayPass(error.trouble) || Clock::now() + pause > end) throw;
    }
    std::this_thread::sleep_for(pause);
  }
}

std::unique_ptr<Store> Store::rebuild(const StoreOptions& options, Trouble why,
                                      std::string* movedTo) {
  prepareDirectory(options.directory);
  requireRegularFiles(options.directory, Purpose::write);
  auto lock = std::make_unique<WriterLock>(options.directory);
  const std::string place = setAside(options.directory, why);
  if (movedTo) *movedTo = place;
  return std::make_unique<StoreImpl>(std::move(lock), StoreFile::openToWrite(options));
}

void Store::put(TableNumber table, Bytes key, Bytes value) {
  const std::span<uint8_t> room = reserve(table, key, value.size());
  if (!value.empty()) std::memcpy(room.data(), value.data(), value.size());
}

size_t Store::forEach(TableNumber table, const Visit& visit) {
  return forEachRecord(table,
                       [&](const Record& record) { return visit(record.key, record.value); });
}

}  // namespace Brine
