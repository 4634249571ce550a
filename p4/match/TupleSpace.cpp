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
  uint64_t masked[maxKeyWords];
  for (uint32_t i = 0; i < shape_.words; ++i) masked[i] = key[i] & tuple.mask[i];
  const auto found = tuple.buckets.find(KeyView{masked});
  if (found == tuple.buckets.end()) return best;
  for (const Entry* entry : (*found)->entries) {
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
  if (isFew_) return findAmongFew(key);
  const Entry* best = nullptr;
  for (const auto& tuple : tuples_) {
    if (best && best->rank < tuple->bestRank) break;
    best = findIn(*tuple, key, best);
  }
  return best;
}

TupleSpace::Tuple* TupleSpace::tupleOf(const Entry& entry) const {
  for (const auto& tuple : tuples_)
    if (equalWords(tuple->mask.data(), entry.mask(), shape_.words)) return tuple.get();
  return nullptr;
}

Entry* TupleSpace::same(const Entry& entry) const {
  const Tuple* tuple = tupleOf(entry);
  if (!tuple) return nullptr;
  const auto found = tuple->buckets.find(KeyView{entry.value()});
  if (found == tuple->buckets.end()) return nullptr;
  for (Entry* other : (*found)->entries) {
    if (other->rank != entry.rank) continue;
    if (shape_.kind != MatchKind::range || (equalWords(other->low(), entry.low(), shape_.words) &&
                                            equalWords(other->high(), entry.high(), shape_.words)))
      return other;
  }
  return nullptr;
}

void TupleSpace::sortTuples() {
  std::stable_sort(tuples_.begin(), tuples_.end(), [](const auto& one, const auto& other) {
    return one->bestRank < other->bestRank;
  });
}

void TupleSpace::insert(Entry* entry) {
  insertTuple(entry);
  if (!isFew_) return;
  isFew_ = few_.size() < maxFew;
  if (!isFew_) return few_.clear();
  const auto behind = [](const Entry* one, const Entry* other) { return better(*one, *other); };
  few_.insert(std::upper_bound(few_.begin(), few_.end(), entry, behind), entry);
}

void TupleSpace::insertTuple(Entry* entry) {
  Tuple* tuple = tupleOf(*entry);
  if (!tuple) {
    tuples_.push_back(std::make_unique<Tuple>(shape_.words));
    tuple = tuples_.back().get();
    tuple->mask.assign(entry->mask(), entry->mask() + shape_.words);
  }
  auto found = tuple->buckets.find(KeyView{entry->value()});
  if (found == tuple->buckets.end()) {
    auto bucket = std::make_unique<Bucket>();
    bucket->words.assign(entry->value(), entry->value() + shape_.words);
    found = tuple->buckets.insert(std::move(bucket)).first;
  }
  std::vector<Entry*>& entries = (*found)->entries;
  const auto behind = [](const Entry* one, const Entry* other) { return better(*one, *other); };
  entries.insert(std::upper_bound(entries.begin(), entries.end(), entry, behind), entry);
  if (entry->rank < tuple->bestRank) {
    tuple->bestRank = entry->rank;
    sortTuples();
  }
}

void TupleSpace::remove(Entry* entry) {
  few_.erase(std::remove(few_.begin(), few_.end(), entry), few_.end());
  Tuple* tuple = tupleOf(*entry);
  if (!tuple) return;
  const auto found = tuple->buckets.find(KeyView{entry->value()});
  if (found == tuple->buckets.end()) return;
  std::vector<Entry*>& entries = (*found)->entries;
  entries.erase(std::remove(entries.begin(), entries.end(), entry), entries.end());
  if (entries.empty()) tuple->buckets.erase(found);
  if (tuple->buckets.empty())
    tuples_.erase(std::find_if(tuples_.begin(), tuples_.end(),
                               [&](const auto& other) { return other.get() == tuple; }));
}

}  // namespace P4
