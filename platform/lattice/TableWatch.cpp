#include "platform/lattice/TableWatch.h"

#include <algorithm>

#include "platform/lattice/records/StoreLayout.h"

namespace Lattice {

StoredRows::StoredRows(Brine::Store& store, const std::string& table)
    : store_(store), rows_(store.table(rowTable(table))) {}

void WatchedTable::noteChange(std::string_view key, std::optional<std::string_view> before) {
  collected_ = false;
  before_.try_emplace(std::string(key), before);
}

void WatchedTable::forgetChanges() {
  before_.clear();
  changes_.clear();
  collected_ = false;
}

const std::vector<ChangedRow>& WatchedTable::changes() {
  if (collected_) return changes_;
  changes_.clear();
  changes_.reserve(before_.size());
  for (const auto& [key, before] : before_) {
    const auto after = value(key);
    const bool same = before ? after && *after == *before : !after;
    if (same) continue;
    changes_.push_back({key, before, after ? std::optional(std::string(*after)) : std::nullopt});
  }
  std::ranges::sort(changes_, {}, &ChangedRow::key);
  collected_ = true;
  return changes_;
}

std::optional<std::string_view> StoredRows::value(std::string_view key) {
  const auto bytes = store_.get(rows_, Brine::asBytes(key));
  const auto stored = bytes ? StoredRow::decode(Brine::asText(*bytes)) : std::nullopt;
  return stored ? std::optional(stored->value) : std::nullopt;
}

void StoredRows::forEachCommitted(const Visit& visit, std::string_view from) {
  store_.forEach(
      rows_,
      [&](Brine::Bytes key, Brine::Bytes bytes) {
        const auto stored = StoredRow::decode(Brine::asText(bytes));
        return !stored || visit(Brine::asText(key), stored->value);
      },
      Brine::asBytes(from));
}

}  // namespace Lattice
