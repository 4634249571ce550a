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
  return bytes ? std::optional(Brine::asText(*bytes)) : std::nullopt;
}

void StoredRows::forEachCommitted(const Visit& visit, Brine::Store::Position* position) {
  const auto each = [&](const Brine::Record& row) {
    return visit(Brine::asText(row.key), Brine::asText(row.value));
  };
  store_.forEachRecord(rows_, each, position);
}

void WatchedTable::forEachCommittedFrom(std::string_view from, const SortedVisit& visit) {
  if (!sorted_) {
    sorted_.emplace();
    forEachCommitted([this](std::string_view key, std::string_view) {
      sorted_->emplace(key);
      return true;
    });
  }
  for (auto at = sorted_->lower_bound(from); at != sorted_->end(); ++at) {
    const auto changed = before_.find(*at);
    const auto value = changed == before_.end() ? this->value(*at) : changed->second;
    if (value && !visit(*at, *value)) return;
  }
}

void WatchedTable::handleCommitted() {
  if (sorted_) {
    for (const ChangedRow& change : changes()) {
      if (change.after) {
        sorted_->insert(change.key);
      } else {
        sorted_->erase(change.key);
      }
    }
  }
  forgetChanges();
}

}  // namespace Lattice
