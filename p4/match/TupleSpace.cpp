#include "p4/match/TupleSpace.h"

#include <algorithm>

namespace P4 {
namespace {

// -1, 0 or 1; low words first.
int compareWords(const uint64_t* one, const uint64_t* other, uint32_t count) {
  for (uint32_t i = count; i-- > 0;)
    if (one[i] != other[i]) return one[i] < other[i] ? -1 : 1;
  return 0;
}

}  // namespace

bool TupleSpace::better(const Entry& one, const Entry& other) {
  return one.rank != other.rank ? one.rank < other.rank : one.handle < other.handle;
}

bool TupleSpace::inRanges(const Entry& entry, const uint64_t* key) const {
  if (shape_.kind != MatchKind::range) return true;
  for (const KeyShape::Element& element : shape_.elements) {
    if (element.kind != MatchKind::range) continue;
    const uint32_t at = element.word;
    if (compareWords(key + at, entry.low() + at, element.words) < 0) return false;
    if (compareWords(key + at, entry.high() + at, element.words) > 0) return false;
  }
  return true;
}

const Entry* TupleSpace::findIn(const Tuple& tuple, const uint64_t* key, const Entry* best) const {
  const Bucket* bucket = tuple.bucketOf(tuple.hash(key), key);
  if (!bucket) return best;
  for (const Entry* entry : bucket->entries) {
    if (best && !better(*entry, *best)) break;
    if (inRanges(*entry, key)) return entry;
  }
  return best;
}

const Entry* TupleSpace::findAmongFew(const uint64_t* key) const {
  for (const Entry* entry : few_) {
    const uint64_t* value = entry->value();
    const uint64_t* mask = entry->mask();
    uint32_t word = 0;
    while (word < shape_.words && (key[word] & mask[word]) == value[word]) ++word;
    if (word == shape_.words && inRanges(*entry, key)) return entry;
  }
  return nullptr;
}

const Entry* TupleSpace::find(const uint64_t* key) const {
  if (triesFew_) return findAmongFew(key);
  uint64_t absent = 0;
  for (size_t i = 0; i < filters_.size(); ++i)
    absent |= uint64_t{!filters_[i].present->mayHave(filters_[i].hash(key))} << i;
  const Entry* best = nullptr;
  for (const ListedTuple& listed : tuples_) {
    if (listed.filters & absent) continue;
    if (best && best->rank < listed.bestRank) break;
    best = findIn(*listed.tuple, key, best);
  }
  return best;
}

TupleSpace::Tuples::iterator TupleSpace::tupleOf(const Entry& entry) {
  return std::find_if(tuples_.begin(), tuples_.end(), [&](const ListedTuple& listed) {
    return equalWords(listed.tuple->mask.data(), entry.mask(), shape_.words);
  });
}

TupleSpace::Tuples::const_iterator TupleSpace::tupleOf(const Entry& entry) const {
  return const_cast<TupleSpace*>(this)->tupleOf(entry);
}

template <typename Wanted>
Entry* TupleSpace::firstOf(const Entry& key, const Wanted& wanted) const {
  const auto listed = tupleOf(key);
  const Bucket* bucket = listed == tuples_.end() ? nullptr : listed->tuple->bucketOf(key);
  if (!bucket) return nullptr;
  for (Entry* entry : bucket->entries) {
    if (!wanted(*entry)) continue;
    if (shape_.kind != MatchKind::range || (equalWords(entry->low(), key.low(), shape_.words) &&
                                            equalWords(entry->high(), key.high(), shape_.words)))
      return entry;
  }
  return nullptr;
}

Entry* TupleSpace::same(const Entry& entry) const {
  return firstOf(entry, [&](const Entry& other) { return other.rank == entry.rank; });
}

Entry* TupleSpace::ofMatch(const Entry& entry) const {
  return firstOf(entry, [](const Entry&) { return true; });
}

void TupleSpace::sortTuples() {
  std::stable_sort(tuples_.begin(), tuples_.end(), [](const auto& one, const auto& other) {
    return one.bestRank < other.bestRank;
  });
}

// An entry that is tried costs about a quarter of a tuple that is asked.
void TupleSpace::chooseWay() { triesFew_ = isFew_ && few_.size() <= 4 * tuples_.size() + 4; }

// The filter of a masked word, the next free one if it has none yet; maxFilters: none is free.
size_t TupleSpace::filterOf(const MaskedWord& of) {
  size_t found = filters_.size();
  for (size_t i = 0; i < filters_.size(); ++i) {
    const Filter& filter = filters_[i];
    if (filter.tuples && filter.of.word == of.word && filter.of.mask == of.mask) return i;
    if (!filter.tuples) found = i;
  }
  if (found == maxFilters) return found;
  if (found == filters_.size()) filters_.push_back({{}, 0, std::make_unique<PresenceFilter>()});
  filters_[found].of = of;
  return found;
}

void TupleSpace::useFilters(ListedTuple& listed) {
  for (const MaskedWord& word : listed.tuple->words) {
    const size_t filter = filterOf(word);
    if (filter == maxFilters) continue;
    ++filters_[filter].tuples;
    listed.filters |= uint64_t{1} << filter;
  }
}

void TupleSpace::leaveFilters(const ListedTuple& listed) {
  for (size_t i = 0; i < filters_.size(); ++i) filters_[i].tuples -= listed.filters >> i & 1;
}

// For the entries that were few.
void TupleSpace::beginFilters() {
  for (ListedTuple& listed : tuples_) useFilters(listed);
  for (const Entry* entry : few_) noteInFilters(*tupleOf(*entry), *entry, true);
}

void TupleSpace::noteInFilters(const ListedTuple& listed, const Entry& entry, bool isThere) {
  for (size_t i = 0; i < filters_.size(); ++i) {
    if (!(listed.filters >> i & 1)) continue;
    const uint64_t hash = filters_[i].hash(entry.value());
    isThere ? filters_[i].present->add(hash) : filters_[i].present->remove(hash);
  }
}

void TupleSpace::insert(Entry* entry) {
  insertTuple(entry);
  if (isFew_) {
    const auto behind = [](const Entry* one, const Entry* other) { return better(*one, *other); };
    few_.insert(std::upper_bound(few_.begin(), few_.end(), entry, behind), entry);
    isFew_ = few_.size() <= maxFew;
    if (!isFew_) {
      beginFilters();
      few_.clear();
    }
  }
  chooseWay();
}

TupleSpace::Tuples::iterator TupleSpace::newTuple(const Entry& entry) {
  ListedTuple listed{.tuple = std::make_unique<Tuple>()};
  listed.tuple->mask.assign(entry.mask(), entry.mask() + shape_.words);
  for (uint32_t word = 0; word < shape_.words; ++word)
    if (entry.mask()[word]) listed.tuple->words.push_back({word, entry.mask()[word]});
  if (!isFew_) useFilters(listed);
  tuples_.push_back(std::move(listed));
  return tuples_.end() - 1;
}

void TupleSpace::insertTuple(Entry* entry) {
  auto listed = tupleOf(*entry);
  if (listed == tuples_.end()) listed = newTuple(*entry);
  Tuple& tuple = *listed->tuple;
  const uint64_t hash = tuple.hash(entry->value());
  const auto behind = [](const Entry* one, const Entry* other) { return better(*one, *other); };
  if (Bucket* bucket = tuple.bucketOf(hash, entry->value())) {
    std::vector<Entry*>& entries = bucket->entries;
    entries.insert(std::upper_bound(entries.begin(), entries.end(), entry, behind), entry);
  } else {
    tuple.buckets.insert(hash, std::make_unique<Bucket>(Bucket{{entry}}));
  }
  noteInFilters(*listed, *entry, true);
  if (entry->rank >= listed->bestRank) return;
  listed->bestRank = entry->rank;
  sortTuples();
}

void TupleSpace::remove(Entry* entry) {
  few_.erase(std::remove(few_.begin(), few_.end(), entry), few_.end());
  removeFromTuple(entry);
  chooseWay();
}

void TupleSpace::removeFromTuple(Entry* entry) {
  const auto listed = tupleOf(*entry);
  if (listed == tuples_.end()) return;
  Tuple& tuple = *listed->tuple;
  const uint64_t hash = tuple.hash(entry->value());
  Bucket* bucket = tuple.bucketOf(hash, entry->value());
  if (!bucket || std::erase(bucket->entries, entry) == 0) return;
  noteInFilters(*listed, *entry, false);
  if (!bucket->entries.empty()) return;
  tuple.buckets.remove(hash, bucket);
  if (!tuple.buckets.empty()) return;
  leaveFilters(*listed);
  tuples_.erase(listed);
}

}  // namespace P4
