#include "platform/lattice/records/Journal.h"

#include <algorithm>
#include <random>

#include "platform/brine/Hash.h"
#include "platform/lattice/records/Packing.h"
#include "platform/scrivel/Trace.h"

namespace Lattice {
namespace {

Scrivel::TraceHandle trace("LatticeJournal");

// Two records share a page of LMDB's; longer ones would need pages in a row.
constexpr size_t recordLimit = 1980;
// Trimming a long journal is spread over commits.
constexpr size_t trimmedPerCommit = 256;
constexpr size_t bytesKept = size_t{16} << 20;
constexpr uint64_t beyondAllSeen = uint64_t{1} << 32;

}  // namespace

Journal::Journal(Brine::Store& store)
    : store_(store),
      journal_(store.table(journalTable)),
      meta_(store.table(metaTable)),
      index_(1024),
      seed_(std::random_device()()) {
  load();
  fresh_ = state_;
  nextSequence_ = state_.lastSequence + 1;
}

void Journal::load() {
  const auto bytes = store_.get(meta_, Brine::asBytes(JournalState::key));
  const auto state = bytes ? JournalState::decode(Brine::asText(*bytes)) : std::nullopt;
  if (state) state_ = *state;
  const bool isNew = store_.count(meta_) == 0 && store_.count(journal_) == 0;
  bool sound = state.has_value() || isNew;
  uint64_t newest = 0;  // of the records that can be read
  const size_t damaged = store_.forEach(journal_, [&](Brine::Bytes key, Brine::Bytes value) {
    if (sound) sound = loadRecord(key, value);
    if (key.size() == 8) newest = __builtin_bswap64(loadAt<uint64_t>(key.data()));
    return true;
  });
  sound =
      sound && damaged == 0 && (records_.empty() || records_.back().last == state_.lastSequence);
  if (sound && state) return;
  if (!sound) startOver(std::max(state_.lastSequence, newest));
  // Followers look for it from the first moment.
  store_.put(meta_, Brine::asBytes(JournalState::key), Brine::asBytes(state_.encode()));
  store_.commit();
}

void Journal::startOver(uint64_t lastSequence) {
  SCRIVEL_TRACE(0, "the journal is damaged and is emptied; followers take a snapshot");
  // Well beyond anything a follower has seen, so that none continues across the gap.
  state_.lastSequence = state_.trimmedUpTo = lastSequence + beyondAllSeen;
  state_.typesVersion += beyondAllSeen;
  state_.lastTable = std::max(state_.lastTable, highestTable());
  records_.clear();
  changes_ = 0;
  store_.eraseAll(journal_);
}

// The highest number that a table has.
uint32_t Journal::highestTable() {
  uint32_t highest = 0;
  store_.forEach(store_.table(typesTable), [&](Brine::Bytes, Brine::Bytes value) {
    const auto record = TableRecord::decode(Brine::asText(value));
    if (record) highest = std::max(highest, record->number);
    return true;
  });
  return highest;
}

bool Journal::loadRecord(Brine::Bytes key, Brine::Bytes value) {
  if (key.size() != 8) return false;
  std::string_view rest = Brine::asText(value);
  Record record{__builtin_bswap64(loadAt<uint64_t>(key.data())), 0, 0};
  while (!rest.empty()) {
    const auto change = JournalChange::takeFrom(rest);
    if (!change || change->sequence <= record.last) return false;
    if (record.changes == 0 && change->sequence != record.first) return false;
    record.last = change->sequence;
    ++record.changes;
  }
  const uint64_t before = records_.empty() ? state_.trimmedUpTo : records_.back().last;
  if (record.changes == 0 || record.first <= before || record.last > state_.lastSequence) {
    return false;
  }
  records_.push_back(record);
  changes_ += record.changes;
  return true;
}

std::string_view Journal::keyOf(const Pending& pending) const {
  const char* at = bytes_.data() + pending.at;
  return {at + JournalChange::headSize, loadAt<uint16_t>(at + 21)};
}

uint32_t* Journal::slotOf(uint32_t table, std::string_view key, uint64_t hash) {
  const size_t mask = index_.size() - 1;
  size_t slot = hash & mask;
  for (; index_[slot] != 0; slot = (slot + 1) & mask) {
    const Pending& pending = pending_[index_[slot] - 1];
    if (pending.hash == hash && pending.table == table && keyOf(pending) == key) break;
  }
  return &index_[slot];
}

uint64_t Journal::add(uint32_t table, std::string_view key, std::string_view value,
                      uint64_t entryHandle, bool deleted, bool unchanged) {
  if (pending_.size() * 2 >= index_.size()) growIndex();
  const uint64_t hash = Brine::hashOf(Brine::asBytes(key), seed_ + table);
  uint32_t* slot = slotOf(table, key, hash);
  if (*slot != 0) {
    Pending& former = pending_[*slot - 1];
    unchanged = unchanged && former.unchanged;
    if (former.entryHandle == entryHandle && former.live) doReplace(*slot - 1);
  }
  const JournalChange change{nextSequence_,
                             entryHandle,
                             table,
                             static_cast<uint8_t>((deleted ? JournalChange::deleted : 0) |
                                                  (unchanged ? JournalChange::unchanged : 0)),
                             key,
                             value};
  const size_t at = bytes_.size();
  const size_t size = change.encodedSize();
  if (key.size() > UINT16_MAX || at + size > UINT32_MAX) {
    throw Brine::StoreError(Brine::Trouble::full, "too many changes in one batch; write fewer");
  }
  bytes_.resize(at + size);
  change.encode(bytes_.data() + at);
  pending_.push_back({nextSequence_, entryHandle, hash, static_cast<uint32_t>(at),
                      static_cast<uint32_t>(size), table, unchanged, true});
  *slot = static_cast<uint32_t>(pending_.size());
  ++live_;
  return nextSequence_++;
}

// The newest change leaves its place to the one that is to be added; a group that takes its members
// one by one, each with a longer row, would otherwise fill the memory with rows nobody reads.
void Journal::doReplace(size_t index) {
  Pending& former = pending_[index];
  former.live = false;
  --live_;
  if (former.at + size_t{former.size} == bytes_.size()) bytes_.resize(former.at);
}

void Journal::growIndex() {
  index_.assign(index_.size() * 2, 0);
  for (uint32_t i = 0; i < pending_.size(); ++i) {
    *slotOf(pending_[i].table, keyOf(pending_[i]), pending_[i].hash) = i + 1;
  }
}

void Journal::trimTo(uint64_t sequence, size_t maxChanges) {
  trimSequence_ = sequence;
  maxChanges_ = maxChanges;
}

void Journal::flush() {
  writeRecords();
  trimRecords();
  if (live_ > 0) fresh_.lastSequence = pending_.back().sequence;
  store_.put(meta_, Brine::asBytes(JournalState::key), Brine::asBytes(fresh_.encode()));
}

// Packs runs of live changes into records.
void Journal::writeRecords() {
  for (size_t from = 0; from < pending_.size();) {
    size_t size = 0;
    size_t to = from;
    Record record{0, 0, 0};
    for (; to < pending_.size(); ++to) {
      const Pending& pending = pending_[to];
      if (!pending.live) continue;
      if (record.changes > 0 && size + pending.size > recordLimit) break;
      if (record.changes++ == 0) record.first = pending.sequence;
      record.last = pending.sequence;
      size += pending.size;
    }
    if (record.changes > 0) {
      auto room = store_.reserve(journal_, Brine::asBytes(bigEndian(record.first)), size);
      uint8_t* out = room.data();
      for (size_t i = from; i < to; ++i) {
        if (!pending_[i].live) continue;
        std::memcpy(out, bytes_.data() + pending_[i].at, pending_[i].size);
        out += pending_[i].size;
      }
      added_.push_back(record);
    }
    from = to;
  }
}

void Journal::trimRecords() {
  size_t left = changes_;
  while (trimmed_ < records_.size() && trimmed_ < trimmedPerCommit) {
    const Record& oldest = records_[trimmed_];
    if (oldest.last > trimSequence_ && left <= maxChanges_) break;
    store_.erase(journal_, Brine::asBytes(bigEndian(oldest.first)));
    fresh_.trimmedUpTo = oldest.last;
    left -= oldest.changes;
    ++trimmed_;
  }
}

const std::vector<CommittedChange>& Journal::finishCommit() {
  committed_.clear();
  for (const Pending& pending : pending_) {
    if (pending.live) committed_.push_back({pending.sequence, pending.entryHandle});
  }
  for (; trimmed_ > 0; --trimmed_) {
    changes_ -= records_.front().changes;
    records_.pop_front();
  }
  for (const Record& record : added_) {
    records_.push_back(record);
    changes_ += record.changes;
  }
  state_ = fresh_;
  clear();
  return committed_;
}

void Journal::discard() {
  // Table numbers and sequence numbers that were given out are not given out again.
  const uint32_t lastTable = fresh_.lastTable;
  fresh_ = state_;
  fresh_.lastTable = lastTable;
  clear();
}

void Journal::clear() {
  bytes_.clear();
  if (bytes_.capacity() > bytesKept) bytes_.shrink_to_fit();
  pending_.clear();
  added_.clear();
  trimmed_ = 0;
  live_ = 0;
  index_.assign(std::min<size_t>(index_.size(), 1 << 14), 0);
}

}  // namespace Lattice
