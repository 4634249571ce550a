#include "platform/brine/Recovery.h"

#include "platform/brine/RecordSum.h"

namespace Brine {
namespace {

class TableRecovery {
 public:
  TableRecovery(StoreFile& file, SlotSpace& slots, uint32_t table, KeyIndex& index,
                FormerSlots& former, const std::function<void(Ref)>& damage)
      : file_(file),
        slots_(slots),
        table_(table),
        index_(index),
        former_(former),
        damage_(damage),
        committed_(file.word(CommitWord::committed)) {}

  uint64_t run() {
    index_.reserve(slots_.mostRecords(table_));
    slots_.forEachSlot(table_, [this](Ref ref) { return look(ref), true; });
    enterFound();
    // The lowest places are used first.
    for (; !free_.empty(); free_.pop_back()) slots_.release(free_.back());
    return sum_;
  }

 private:
  void look(Ref ref) {
    SlotHead& slot = file_.slot(ref);
    if (slot.begin == 0) return free_.push_back(ref);
    if (!isStamped(slot.begin, beginSalt(ref))) return noteUnreadable(ref);
    if (numberIn(slot.begin) > committed_) return former_.open.push_back(ref);
    if (slot.end != 0 && !isStamped(slot.end, endSalt(ref))) return noteUnreadable(ref);
    if (numberIn(slot.end) > committed_) store(slot.end, 0);
    const bool sound = isSound(file_, ref, slots_.slotSize(ref), table_);
    if (slot.end != 0) return former_.dead.push_back({ref, numberIn(slot.end)});
    sum_ += RecordSum::of(slot.begin, ref);
    if (!sound) return noteDamage(slot, ref);
    const uint32_t hash = index_.hash(keyOf(slot));
    index_.loadSlot(hash);
    found_.push_back({ref, hash});
    if (found_.size() == enteredTogether) enterFound();
  }
  // In a table of a million records each of them waits for memory.
  void enterFound() {
    for (const Found& one : found_) index_.enter(keyOf(file_.slot(one.ref)), one.hash, one.ref);
    found_.clear();
  }
  void noteUnreadable(Ref ref) {
    former_.anyUnreadable = true;
    damage_(ref);
  }
  // Under the key that it shows, if there is no other, it can be replaced.
  void noteDamage(const SlotHead& slot, Ref ref) {
    former_.damagedSum += RecordSum::of(slot.begin, ref);
    damage_(ref);
    enterFound();
    const size_t room = slots_.slotSize(ref) - SlotHead::size;
    const Bytes key{slot.key(), slot.keySize};
    if (key.empty() || key.size() > keyLimit || key.size() > room) return;
    if (index_.find(key) == 0) index_.enter(key, ref);
  }

  static Bytes keyOf(const SlotHead& slot) { return {slot.key(), slot.keySize}; }

  static constexpr size_t enteredTogether = 32;
  struct Found {
    Ref ref;
    uint32_t hash;
  };

  StoreFile& file_;
  SlotSpace& slots_;
  const uint32_t table_;
  KeyIndex& index_;
  FormerSlots& former_;
  const std::function<void(Ref)>& damage_;
  const uint64_t committed_;
  std::vector<Ref> free_;
  std::vector<Found> found_;  // sound records that the index is yet to get
  uint64_t sum_ = 0;
};

}  // namespace

bool isSound(const StoreFile& file, Ref ref, size_t slotSize, uint32_t table) {
  const SlotHead& slot = file.slot(ref);
  const bool fits = slot.keySize > 0 && slot.keySize <= keyLimit && slot.bytes() <= slotSize;
  return fits && slot.checksum == slotChecksum(slot, file.head().seed, table);
}

Record recordIn(const StoreFile& file, Ref ref) {
  const SlotHead& slot = file.slot(ref);
  return {.key = {slot.key(), slot.keySize},
          .value = {slot.value(), slot.valueSize},
          .attachment = {slot.attachment(), slot.attachmentSize},
          .owner = slot.owner,
          .sequence = numberIn(slot.begin)};
}

std::optional<bool> counts(const SlotHead& slot, Ref ref, uint64_t sequence) {
  const uint64_t begin = load(slot.begin), end = load(slot.end);
  if (begin == 0) return false;
  if (!isStamped(begin, beginSalt(ref))) return std::nullopt;
  if (numberIn(begin) > sequence) return false;
  if (end == 0) return true;
  if (!isStamped(end, endSalt(ref))) return std::nullopt;
  return numberIn(end) > sequence;
}

uint64_t recoverTable(StoreFile& file, SlotSpace& slots, uint32_t table, KeyIndex& index,
                      FormerSlots& former, const std::function<void(Ref)>& damage) {
  return TableRecovery(file, slots, table, index, former, damage).run();
}

}  // namespace Brine
