#include "platform/brine/Reader.h"

#include <absl/container/flat_hash_map.h>
#include <absl/container/flat_hash_set.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <map>
#include <utility>

#include "platform/brine/Layout.h"
#include "platform/brine/Recovery.h"
#include "platform/brine/StateDirectory.h"
#include "platform/brine/StoreFile.h"

namespace Brine {
namespace {

constexpr TableNumber directoryTable = 1;
constexpr int triesBesideAWriter = 20;
constexpr size_t changesAtOnce = 512;
constexpr size_t bytesAtOnce = size_t{1} << 20;
constexpr uint64_t loadedAhead = 12;

// Copies slots beside a writer that may use them again meanwhile.
class SlotReader {
 public:
  explicit SlotReader(const StoreFile& file) : file_(file) {}

  // A copy of a slot's record, at the end of `bytes`.
  struct Copy {
    SlotHead head;
    size_t at = 0;  // of the key in `bytes`
    bool isSound = false;
  };
  // The begin of a slot that a change names; 0 for none.
  uint64_t beginOf(Ref ref) const {
    return roomAt(ref) < SlotHead::size ? 0 : load(file_.slot(ref).begin);
  }
  // Nothing when another record than that of `begin` is in the slot before or after. Copies
  // `slotSize` bytes at most.
  std::optional<Copy> copy(Ref ref, uint64_t begin, uint32_t table, std::string& bytes,
                           size_t slotSize = SIZE_MAX) const {
    const size_t room = std::min(roomAt(ref), slotSize);
    const SlotHead& slot = file_.slot(ref);
    if (room < SlotHead::size || load(slot.begin) != begin) return std::nullopt;
    Copy copy{slot, bytes.size()};
    copy.head.begin = begin;
    const size_t size = std::min(copy.head.bytes(), room);
    bytes.append(reinterpret_cast<const char*>(slot.key()), size - SlotHead::size);
    std::atomic_thread_fence(std::memory_order_acquire);
    if (load(slot.begin) != begin) {
      bytes.resize(copy.at);
      return std::nullopt;
    }
    const auto* key = reinterpret_cast<const uint8_t*>(bytes.data()) + copy.at;
    copy.isSound = size == copy.head.bytes() && copy.head.keySize > 0 &&
                   copy.head.keySize <= keyLimit &&
                   copy.head.checksum == slotChecksum(copy.head, key, file_.head().seed, table);
    return copy;
  }

 private:
  uint64_t roomAt(Ref ref) const {
    const uint64_t end = file_.word(CommitWord::end) * pageSize, at = uint64_t{ref} * refUnit;
    return at < end ? end - at : 0;
  }
  const StoreFile& file_;
};

// Bytes that stay at their place as more come.
class Arena {
 public:
  const uint8_t* add(std::string_view bytes) {
    if (bytes.size() > left_) {
      left_ = std::max(bytes.size(), blockBytes);
      blocks_.push_back(std::make_unique_for_overwrite<uint8_t[]>(left_));
      next_ = blocks_.back().get();
    }
    uint8_t* const at = next_;
    if (!bytes.empty()) std::memcpy(at, bytes.data(), bytes.size());
    next_ += bytes.size();
    left_ -= bytes.size();
    return at;
  }

 private:
  static constexpr size_t blockBytes = size_t{1} << 18;
  std::vector<std::unique_ptr<uint8_t[]>> blocks_;
  uint8_t* next_ = nullptr;
  size_t left_ = 0;
};

// There may be a million of them.
struct CopiedRecord {
  const uint8_t* key = nullptr;  // value and attachment follow; null: the record is gone
  uint64_t begin = 0;
  uint64_t owner = 0;
  Ref ref = 0;
  TableNumber table = 0;
  uint32_t valueSize = 0;
  uint16_t keySize = 0;
  uint16_t attachmentSize = 0;

  Record record() const {
    return {.key = {key, keySize},
            .value = {key + keySize, valueSize},
            .attachment = {key + keySize + valueSize, attachmentSize},
            .owner = owner,
            .sequence = begin};
  }
};
using CopiedRecords = std::deque<CopiedRecord>;  // grows without a copy

// What a snapshot is made of: a copy of the slots, corrected by the changes that were made while
// they were copied.
class Copier {
 public:
  struct Restart {};  // the writer has lapped us

  Copier(const StoreFile& file, absl::flat_hash_set<TableNumber> tables,
         Reader::Attachments attachments)
      : file_(file), slots_(file), tables_(std::move(tables)), attachments_(attachments) {}

  void run() {
    sequence_ = file_.word(CommitWord::committed);
    const uint64_t end = file_.word(CommitWord::end);
    for (uint64_t page = firstExtentPage(file_.head().changes); page < end;) {
      page += copyExtent(page, end);
      absorb();
    }
    std::ranges::stable_sort(absorbed_, {}, &CopiedRecord::table);
    records_.insert(records_.end(), absorbed_.begin(), absorbed_.end());
    absorbed_.clear();
    absorbedAt_ = {};
    std::erase_if(records_, [](const CopiedRecord& record) { return record.key == nullptr; });
  }

  uint64_t sequence() const { return sequence_; }
  // After run(): those of a table lie together, in some runs.
  CopiedRecords& records() { return records_; }
  Arena& arena() { return arena_; }
  std::set<std::pair<TableNumber, std::string>>& damage() { return damage_; }

 private:
  bool wants(TableNumber table) const { return tables_.contains(table); }

  uint64_t copyExtent(uint64_t page, uint64_t end) {
    const ExtentHead& head = file_.extent(page);
    const uint64_t pages = load(head.pages), use = load(head.use);
    const bool isSound = isStamped(pages, page) && isStamped(use, page + 1) &&
                         numberIn(pages) > 0 && numberIn(pages) <= end - page;
    if (!isSound) damaged(file_.directory(), "extent at page " + std::to_string(page));
    const auto table = static_cast<TableNumber>(numberIn(use) >> 16);
    if (table != 0 && wants(table)) copySlots(page, numberIn(pages), use);
    return numberIn(pages);
  }

  void copySlots(uint64_t page, uint64_t pages, uint64_t use) {
    const size_t units = numberIn(use) & UINT16_MAX;
    const size_t slotSize = units == 0 ? pages * pageSize - sizeof(ExtentHead) : units * refUnit;
    const size_t slots = slotsIn(pages, slotSize);
    for (size_t i = 0; i < slots; ++i) {
      // The slots of an extent that has become free are none.
      if (load(file_.extent(page).use) != use) return;
      const size_t at = page * pageSize + sizeof(ExtentHead) + i * slotSize;
      copySlot(static_cast<Ref>(at / refUnit), slotSize, page, use);
    }
  }

  void copySlot(Ref ref, size_t slotSize, uint64_t page, uint64_t use) {
    const SlotHead& slot = file_.slot(ref);
    const uint64_t begin = load(slot.begin);
    const auto counted = counts(slot, ref, sequence_);
    if (counted && !*counted) return;
    const auto table = static_cast<TableNumber>(numberIn(use) >> 16);
    bytes_.clear();
    const auto copy = slots_.copy(ref, begin, table, bytes_, slotSize);
    if (!copy) return;  // the changes tell of the record that has come into the slot
    if (load(file_.extent(page).use) != use) return;
    if (!counted || !copy->isSound) return noteDamage(table, copy->head);
    if (const auto known = absorbedAt_.find(ref); known != absorbedAt_.end()) {
      if (isOf(absorbed_[known->second], numberIn(begin))) return;
      absorbed_[known->second].key = nullptr;
      absorbedAt_.erase(known);
    }
    records_.push_back(kept(ref, numberIn(begin), table, copy->head));
  }

  void noteDamage(TableNumber table, const SlotHead& head) {
    const size_t key = std::min<size_t>({head.keySize, keyLimit, bytes_.size()});
    damage_.emplace(table, bytes_.substr(0, key));
  }

  // Of the record in bytes_.
  CopiedRecord kept(Ref ref, uint64_t begin, TableNumber table, const SlotHead& head) {
    const bool withAttachment = attachments_ == Reader::Attachments::copied;
    const uint16_t attachmentSize = withAttachment ? head.attachmentSize : 0;
    const size_t size = size_t{head.keySize} + head.valueSize + attachmentSize;
    return {.key = arena_.add({bytes_.data(), size}),
            .begin = begin,
            .owner = head.owner,
            .ref = ref,
            .table = table,
            .valueSize = head.valueSize,
            .keySize = head.keySize,
            .attachmentSize = attachmentSize};
  }

  static bool isOf(const CopiedRecord& record, uint64_t begin) {
    return record.key != nullptr && record.begin == begin;
  }

  // The newest record copied from the slot; null: none was. Slots are copied in their order.
  CopiedRecord* copyOf(Ref ref) {
    if (const auto at = absorbedAt_.find(ref); at != absorbedAt_.end()) {
      return &absorbed_[at->second];
    }
    const auto at = std::ranges::lower_bound(records_, ref, {}, &CopiedRecord::ref);
    return at != records_.end() && at->ref == ref ? &*at : nullptr;
  }

  void absorb() {
    mustReachCommitted();
    while (sequence_ < target_) absorb(++sequence_);
  }

  // Without the change that has taken a slot away from us, its record would be missing.
  void mustReachCommitted() { target_ = std::max(target_, file_.word(CommitWord::committed)); }

  void absorb(uint64_t sequence) {
    const auto change = file_.change(sequence);
    if (!change) throw Restart{};
    const RingEntry& entry = *change;
    if (entry.flags & RingEntry::replaced) return;
    CopiedRecord* const old = entry.before != 0 ? copyOf(entry.before) : nullptr;
    if (old && old->begin < sequence) old->key = nullptr;
    const bool isWritten = entry.now != 0 && !(entry.flags & RingEntry::deleted);
    if (!isWritten || !wants(entry.table)) return;
    const uint64_t begin = stamped(sequence, beginSalt(entry.now));
    if (slots_.beginOf(entry.now) != begin) return mustReachCommitted();
    bytes_.clear();
    const auto copy = slots_.copy(entry.now, begin, entry.table, bytes_);
    if (!copy) return mustReachCommitted();
    if (!copy->isSound) return noteDamage(entry.table, copy->head);
    if (CopiedRecord* const former = copyOf(entry.now)) {
      if (isOf(*former, sequence)) return;
      former->key = nullptr;
    }
    absorbedAt_[entry.now] = absorbed_.size();
    absorbed_.push_back(kept(entry.now, sequence, entry.table, copy->head));
  }

  const StoreFile& file_;
  SlotReader slots_;
  const absl::flat_hash_set<TableNumber> tables_;
  uint64_t sequence_ = 0;
  uint64_t target_ = 0;  // to be reached before the copy is whole
  const Reader::Attachments attachments_;
  CopiedRecords records_;   // of the slots, in their order
  CopiedRecords absorbed_;  // of changes that were made meanwhile
  absl::flat_hash_map<Ref, size_t> absorbedAt_;
  Arena arena_;
  std::string bytes_;  // of one record
  std::set<std::pair<TableNumber, std::string>> damage_;
};

class SnapshotImpl final : public Snapshot {
 public:
  SnapshotImpl(Copier& copier, std::map<std::string, TableNumber, std::less<>> tables,
               uint64_t settled)
      : sequence_(copier.sequence()),
        settled_(settled),
        tables_(std::move(tables)),
        arena_(std::move(copier.arena())),
        records_(std::move(copier.records())) {
    enterRuns();
    for (const auto& [name, number] : tables_) {
      for (const auto& [table, key] : copier.damage()) {
        if (table == number) damaged_.insert({.table = name, .key = key});
      }
    }
  }

  uint64_t sequence() const override { return sequence_; }
  std::vector<std::string> tableNames() const override {
    std::vector<std::string> names;
    for (const auto& [name, number] : tables_) names.push_back(name);
    return names;
  }
  bool hasTable(std::string_view name) const override { return tables_.contains(name); }
  std::optional<Bytes> get(std::string_view table, Bytes key) const override {
    std::optional<Bytes> found;
    forEachRecord(table, [&](const Record& record) {
      if (!std::ranges::equal(record.key, key)) return true;
      found = record.value;
      return false;
    });
    return found;
  }
  size_t forEachRecord(std::string_view table, const Store::RecordVisit& visit) const override {
    bool isWanted = true;
    for (const Run& run : runsOf(table)) {
      for (size_t at = run.first; at < run.last && isWanted; ++at) {
        isWanted = visit(records_[at].record());
      }
    }
    return static_cast<size_t>(std::ranges::count_if(
        damaged_, [&](const DamagedRecord& record) { return record.table == table; }));
  }
  size_t count(std::string_view table) const override {
    size_t count = 0;
    for (const Run& run : runsOf(table)) count += run.last - run.first;
    return count;
  }
  const std::set<DamagedRecord>& damagedRecords() const override { return damaged_; }
  bool isUnsettled(const Record& record) const override { return record.sequence > settled_; }

 private:
  struct Run {  // of records of one table
    size_t first;
    size_t last;  // behind it
  };
  void enterRuns() {
    for (size_t first = 0, at = 0; at < records_.size(); first = at) {
      while (at < records_.size() && records_[at].table == records_[first].table) ++at;
      runs_[records_[first].table].push_back({first, at});
    }
  }
  std::span<const Run> runsOf(std::string_view table) const {
    const auto number = tables_.find(table);
    if (number == tables_.end()) return {};
    const auto found = runs_.find(number->second);
    return found == runs_.end() ? std::span<const Run>() : found->second;
  }

  const uint64_t sequence_;
  const uint64_t settled_;
  const std::map<std::string, TableNumber, std::less<>> tables_;
  const Arena arena_;
  const CopiedRecords records_;
  absl::flat_hash_map<TableNumber, std::vector<Run>> runs_;
  std::set<DamagedRecord> damaged_;
};

class ReaderImpl final : public Reader {
 public:
  explicit ReaderImpl(StoreFile file) : file_(std::move(file)), slots_(file_) {}

  State state() const override {
    // The newest first: what it tells of has then been written.
    State state;
    state.committed = file_.word(CommitWord::committed);
    state.typesVersion = file_.word(CommitWord::typesVersion);
    state.trimmed = file_.word(CommitWord::trimmed);
    return state;
  }
  std::string_view identity() const override { return {file_.head().identity, 16}; }
  std::unique_ptr<Snapshot> snapshot(const TableFilter& tables, Attachments attachments) override;
  TableNumber tableNumber(std::string_view name) override {
    const Tables tables = copied([](auto) { return false; }, Attachments::leftOut).tables;
    const auto found = tables.find(name);
    return found == tables.end() ? 0 : found->second;
  }
  std::optional<uint64_t> follow(uint64_t from, uint64_t to, const ChangesVisit& visit) override {
    return visitUpTo(std::min(to, file_.word(CommitWord::committed)), from, visit);
  }
  std::optional<uint64_t> followAhead(uint64_t from, uint64_t to,
                                      const ChangesVisit& visit) override {
    return visitUpTo(to, from, visit);
  }
  bool cameTrue(uint64_t from, uint64_t to) const override;
  uint64_t lastWritten(uint64_t from) const override {
    while (file_.change(from + 1)) ++from;
    return from;
  }
  bool visitTakenBack(uint64_t first, uint64_t last, const ChangeVisit& visit) override;

 private:
  using Tables = std::map<std::string, TableNumber, std::less<>>;
  struct Copied {
    Tables tables;
    std::unique_ptr<Copier> records;  // null: the tables have changed meanwhile
  };
  Copied copied(const TableFilter& filter, Attachments attachments);
  Copied copiedOnce(const TableFilter& filter, Attachments attachments);
  Tables listIn(Copier& copier);
  std::optional<uint64_t> visitUpTo(uint64_t to, uint64_t from, const ChangesVisit& visit);
  void loadSlotOf(uint64_t sequence) const;
  bool copyChange(uint64_t sequence);
  void passOn(const ChangesVisit& visit);
  bool takeBack(uint64_t sequence, const ChangeVisit& visit);

  const StoreFile file_;
  const SlotReader slots_;
  std::string bytes_;
  struct Sizes {
    size_t key;
    size_t value;
  };
  std::vector<FollowedChange> changes_;
  std::vector<Sizes> sizes_;  // of their keys and values, which lie in bytes_ one after another
};

ReaderImpl::Copied ReaderImpl::copied(const TableFilter& filter, Attachments attachments) {
  for (int i = 0; i < triesBesideAWriter; ++i) {
    try {
      if (Copied copied = copiedOnce(filter, attachments); copied.records) return copied;
    } catch (const Copier::Restart&) {
      continue;
    }
  }
  throw StoreError(Trouble::unavailable, "the store in " + file_.directory() +
                                             " changes faster than it can be copied; try again");
}

ReaderImpl::Copied ReaderImpl::copiedOnce(const TableFilter& filter, Attachments attachments) {
  Copier list(file_, {directoryTable}, attachments);
  list.run();
  Copied copied{listIn(list), nullptr};
  absl::flat_hash_set<TableNumber> wanted{directoryTable};
  for (const auto& [name, number] : copied.tables) {
    if (!filter || filter(name)) wanted.insert(number);
  }
  auto records = std::make_unique<Copier>(file_, std::move(wanted), attachments);
  records->run();
  if (listIn(*records) == copied.tables) copied.records = std::move(records);
  return copied;
}

ReaderImpl::Tables ReaderImpl::listIn(Copier& copier) {
  const auto isOfList = [](const auto& damage) { return damage.first == directoryTable; };
  if (std::ranges::any_of(copier.damage(), isOfList)) {
    damaged(file_.directory(), "its list of tables");
  }
  Tables tables;
  for (const CopiedRecord& copy : copier.records()) {
    if (copy.table != directoryTable) continue;
    const Record record = copy.record();
    TableNumber number = 0;
    if (record.value.size() == sizeof number) {
      std::memcpy(&number, record.value.data(), sizeof number);
    }
    tables.emplace(asText(record.key), number);
  }
  return tables;
}

std::unique_ptr<Snapshot> ReaderImpl::snapshot(const TableFilter& filter, Attachments attachments) {
  const uint64_t settled = file_.word(CommitWord::settled);
  Copied copy = copied(filter, attachments);
  return std::make_unique<SnapshotImpl>(*copy.records, std::move(copy.tables), settled);
}

std::optional<uint64_t> ReaderImpl::visitUpTo(uint64_t to, uint64_t from,
                                              const ChangesVisit& visit) {
  while (from < to) {
    bytes_.clear();
    changes_.clear();
    sizes_.clear();
    uint64_t reached = from;
    if (file_.word(CommitWord::trimmed) > from) return std::nullopt;
    while (reached < to && changes_.size() < changesAtOnce && bytes_.size() < bytesAtOnce) {
      ++reached;
      if (reached + loadedAhead <= to) loadSlotOf(reached + loadedAhead);
      if (!copyChange(reached)) return std::nullopt;
    }
    // Slots of changes that were trimmed may have been used again before they were copied.
    if (file_.word(CommitWord::trimmed) > from) return std::nullopt;
    passOn(visit);
    from = reached;
  }
  return from;
}

// The slots of a million records lie in memory that the processor has yet to fetch.
void ReaderImpl::loadSlotOf(uint64_t sequence) const {
  const RingEntry& entry = file_.ring(sequence);
  file_.loadSlot(entry.now != 0 ? entry.now : entry.before);
}

// False when the change is lost: its place is a later one's already, or it is damaged.
bool ReaderImpl::copyChange(uint64_t sequence) {
  const auto place = file_.change(sequence);
  if (!place) return false;
  const RingEntry& entry = *place;
  if (entry.flags & RingEntry::replaced) return true;
  const bool deleted = entry.flags & RingEntry::deleted;
  const Ref ref = entry.now != 0 ? entry.now : entry.before;
  const uint64_t begin = slots_.beginOf(ref);
  if (ref == 0 || begin == 0) return true;  // its table is gone
  if (!isStamped(begin, beginSalt(ref))) return false;
  // A record that was written since is a later change's. A deletion counts all the same: if it is
  // being undone, that may come to nothing.
  if (!deleted && numberIn(begin) != sequence) return true;
  const auto copy = slots_.copy(ref, begin, entry.table, bytes_);
  if (!copy) return !deleted;
  if (!copy->isSound) {
    bytes_.resize(copy->at);
    return numberIn(begin) > sequence;  // another table's
  }
  const size_t keySize = copy->head.keySize;
  const size_t valueSize = deleted ? 0 : copy->head.valueSize;
  sizes_.push_back({keySize, valueSize});
  changes_.push_back({.sequence = sequence,
                      .owner = entry.owner,
                      .table = entry.table,
                      .deleted = deleted,
                      .unchanged = (entry.flags & RingEntry::unchanged) != 0,
                      .key = {},
                      .value = {}});
  bytes_.resize(copy->at + keySize + valueSize);
  return true;
}

// The later change that replaced a visited one may have been withdrawn.
bool ReaderImpl::cameTrue(uint64_t from, uint64_t to) const {
  const uint64_t committed = file_.word(CommitWord::committed);
  if (committed < to) return false;
  bool anyReplaced = false;
  for (uint64_t sequence = from; ++sequence <= committed;) {
    const auto entry = file_.change(sequence);
    if (!entry) return false;
    const bool isVisited = sequence <= to;
    if ((entry->flags & RingEntry::withdrawn) && (isVisited || anyReplaced)) return false;
    anyReplaced |= isVisited && (entry->flags & RingEntry::replaced);
  }
  return file_.word(CommitWord::trimmed) <= from;
}

bool ReaderImpl::visitTakenBack(uint64_t first, uint64_t last, const ChangeVisit& visit) {
  for (uint64_t sequence = last; sequence >= first; --sequence) {
    if (!takeBack(sequence, visit)) return false;
  }
  return true;
}

// Slots of changes that were trimmed may have been used again before they were copied.
bool ReaderImpl::takeBack(uint64_t sequence, const ChangeVisit& visit) {
  const auto place = file_.change(sequence);
  if (!place) return false;
  const RingEntry& entry = *place;
  if (entry.flags & RingEntry::replaced) return true;
  const Ref ref = entry.before != 0 ? entry.before : entry.now;
  const uint64_t begin = slots_.beginOf(ref);
  if (ref == 0 || begin == 0 || !isStamped(begin, beginSalt(ref))) return false;
  bytes_.clear();
  const auto copy = slots_.copy(ref, begin, entry.table, bytes_);
  if (!copy || file_.word(CommitWord::trimmed) >= sequence) return false;
  const auto* at = reinterpret_cast<const uint8_t*>(bytes_.data()) + copy->at;
  const size_t keySize = copy->head.keySize;
  const bool wasThere = entry.before != 0;
  if (!copy->isSound) {  // of a change that was not shown, the key is whole
    if (numberIn(begin) <= file_.word(CommitWord::committed)) return false;
    if (wasThere) return true;  // an earlier change tells of the record
    if (keySize == 0 || keySize > bytes_.size()) return false;
  }
  visit({.sequence = sequence,
         .owner = wasThere ? copy->head.owner : entry.owner,
         .table = entry.table,
         .deleted = !wasThere,
         .key = {at, keySize},
         .value = {at + keySize, wasThere ? copy->head.valueSize : 0}});
  return true;
}

void ReaderImpl::passOn(const ChangesVisit& visit) {
  const auto* at = reinterpret_cast<const uint8_t*>(bytes_.data());
  for (size_t i = 0; i < changes_.size(); ++i) {
    const auto [keySize, valueSize] = sizes_[i];
    changes_[i].key = {at, keySize};
    changes_[i].value = {at + keySize, valueSize};
    at += keySize + valueSize;
  }
  visit(changes_);
}

}  // namespace

std::unique_ptr<Reader> Reader::open(const std::string& directory) {
  requireRegularFiles(directory, Purpose::read);
  return std::make_unique<ReaderImpl>(StoreFile::openToRead(directory));
}

std::optional<uint64_t> Reader::followEach(uint64_t from, uint64_t to, const ChangeVisit& visit) {
  return follow(from, to, [&](std::span<const FollowedChange> changes) {
    for (const FollowedChange& change : changes) visit(change);
  });
}

size_t Snapshot::forEach(std::string_view table, const Store::Visit& visit) const {
  return forEachRecord(table,
                       [&](const Record& record) { return visit(record.key, record.value); });
}

}  // namespace Brine
