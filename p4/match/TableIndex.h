// The match structure of a table, fit for its kind.
#pragma once

#include <variant>

#include "p4/match/ExactIndex.h"
#include "p4/match/KeyShape.h"
#include "p4/match/PrefixIndex.h"
#include "p4/match/TupleSpace.h"

namespace P4 {

// Borrows the entries, whose keys have the words that the shape says. One thread at a time, but any
// number of threads may look up while none changes it.
class TableIndex {
 public:
  explicit TableIndex(const KeyShape& shape) : index_(made(shape)) {}

  // `key` has one readable word behind it.
  const Entry* find(const uint64_t* key) const {
    if (const auto* exact = std::get_if<ExactIndex>(&index_)) return exact->find(key);
    if (const auto* prefix = std::get_if<std::unique_ptr<PrefixIndex>>(&index_))
      return (*prefix)->find(key);
    return std::get<TupleSpace>(index_).find(key);
  }
  bool empty() const {
    if (const auto* exact = std::get_if<ExactIndex>(&index_)) return exact->empty();
    if (const auto* prefix = std::get_if<std::unique_ptr<PrefixIndex>>(&index_))
      return (*prefix)->empty();
    return std::get<TupleSpace>(index_).empty();
  }
  // The entry with equal key (and, where it counts, rank), or null.
  Entry* same(const Entry& entry) const {
    if (const auto* exact = std::get_if<ExactIndex>(&index_)) return exact->same(entry);
    if (const auto* prefix = std::get_if<std::unique_ptr<PrefixIndex>>(&index_))
      return (*prefix)->same(entry);
    return std::get<TupleSpace>(index_).same(entry);
  }
  // The entry of the same match whatever its rank, the best if there are several; or null.
  Entry* ofMatch(const Entry& entry) const {
    const auto* tuples = std::get_if<TupleSpace>(&index_);
    return tuples ? tuples->ofMatch(entry) : same(entry);
  }
  // An entry that maybeInsert() of another index of this shape has taken.
  void insert(Entry* entry) {
    if (auto* exact = std::get_if<ExactIndex>(&index_)) {
      exact->insert(entry);
    } else if (auto* prefix = std::get_if<std::unique_ptr<PrefixIndex>>(&index_)) {
      (*prefix)->insert(entry);
    } else {
      std::get<TupleSpace>(index_).insert(entry);
    }
  }
  // False, and nothing is done, when there is such an entry.
  bool maybeInsert(Entry* entry) {
    if (auto* exact = std::get_if<ExactIndex>(&index_)) return exact->maybeInsert(entry);
    if (same(*entry) != nullptr) return false;
    insert(entry);
    return true;
  }
  void remove(Entry* entry) {
    if (auto* exact = std::get_if<ExactIndex>(&index_)) return exact->remove(entry);
    if (auto* prefix = std::get_if<std::unique_ptr<PrefixIndex>>(&index_))
      return (*prefix)->remove(entry);
    std::get<TupleSpace>(index_).remove(entry);
  }

 private:
  using Index = std::variant<ExactIndex, std::unique_ptr<PrefixIndex>, TupleSpace>;
  static Index made(const KeyShape& shape) {
    switch (shape.kind) {
      case MatchKind::lpm:
        return std::make_unique<PrefixIndex>(shape.exactWords);
      case MatchKind::ternary:
      case MatchKind::range:
        return Index(std::in_place_type<TupleSpace>, shape);
      default:
        return Index(std::in_place_type<ExactIndex>, shape.words);
    }
  }

  Index index_;
};

}  // namespace P4
