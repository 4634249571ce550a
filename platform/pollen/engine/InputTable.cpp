#include "platform/pollen/engine/InputTable.h"

#include <algorithm>

namespace Pollen {

using Lattice::ChangedRow;

InputTable::InputTable(std::string name, std::string tableName,
                       std::shared_ptr<const Lattice::TableType> type,
                       std::unique_ptr<Lattice::TableWatch> watch)
    : name_(std::move(name)),
      tableName_(std::move(tableName)),
      type_(std::move(type)),
      watch_(std::move(watch)),
      reader_(type_) {
  for (const SqlColumn& column : sqlColumns(*type_)) {
    isInteger_.push_back(column.sqlType[0] == 'I');
  }
}

void InputTable::seenIs(Seen seen, std::string limit) {
  seen_ = seen;
  limit_ = std::move(limit);
}

bool InputTable::isSeen(std::string_view key) const {
  return seen_ == Seen::all || (seen_ == Seen::belowLimit && key < limit_);
}

const ChangedRow* InputTable::change(std::string_view key) {
  const auto& changes = watch_->changes();
  const auto found = std::ranges::lower_bound(
      changes, key, {}, [](const ChangedRow& row) { return std::string_view(row.key); });
  return found != changes.end() && found->key == key ? &*found : nullptr;
}

std::optional<std::string_view> InputTable::row(std::string_view key) {
  if (!isSeen(key)) return std::nullopt;
  if (before_) {
    if (const ChangedRow* changed = change(key)) return changed->before;
  }
  return watch_->rows().value(key);
}

void InputTable::committedRows(std::string_view prefix, const std::string& after, size_t most,
                               std::vector<OwnedRow>* rows) {
  if (seen_ == Seen::none) return;
  const auto visit = [&](std::string_view key, std::string_view value) {
    if (!key.starts_with(prefix) || !isSeen(key)) return false;
    if (key == after || (!before_ && change(key))) return true;
    rows->push_back({std::string(key), std::string(value)});
    return rows->size() < most;
  };
  watch_->rows().forEachCommittedFrom(after.empty() ? prefix : std::string_view(after), visit);
}

void InputTable::changedRows(std::string_view prefix, std::vector<OwnedRow>* rows) {
  if (before_) return;
  const auto& changes = watch_->changes();
  auto next = std::ranges::lower_bound(
      changes, prefix, {}, [](const ChangedRow& row) { return std::string_view(row.key); });
  for (; next != changes.end() && next->key.starts_with(prefix) && isSeen(next->key); ++next) {
    if (next->after) rows->push_back({next->key, *next->after});
  }
}

std::vector<SignedRow> InputTable::signedChanges() {
  std::vector<SignedRow> rows;
  for (const ChangedRow& changed : watch_->changes()) {
    if (!isSeen(changed.key)) break;  // they ascend
    if (changed.before) rows.push_back({changed.key, *changed.before, -1});
    if (changed.after) rows.push_back({changed.key, *changed.after, 1});
  }
  return rows;
}

void InputTable::unseenRows(size_t most, std::vector<OwnedRow>* rows) {
  const auto visit = [&](std::string_view key, std::string_view value) {
    rows->push_back({std::string(key), std::string(value)});
    return rows->size() < most;
  };
  watch_->rows().forEachCommittedFrom(limit_, visit);
}

size_t InputTable::indexNumber(const std::vector<size_t>& columns) {
  for (size_t i = 0; i < indexes_.size(); ++i) {
    if (indexes_[i].index->columns() == columns) return i;
  }
  indexes_.push_back({std::make_unique<SecondaryIndex>(columns, type_->keySize())});
  return indexes_.size() - 1;
}

bool InputTable::keepsIndexes() const { return std::ranges::any_of(indexes_, &Index::kept); }

void InputTable::maybeFill(size_t number) {
  Index& of = indexes_[number];
  if (of.kept || of.filled) return;
  of.filled = true;
  std::vector<OwnedRow> rows;
  changedRows({}, &rows);
  std::string after;
  do {
    for (const OwnedRow& row : rows) indexRow(*of.index, {row.key, row.value, 1});
    rows.clear();
    committedRows({}, after, 1000, &rows);
    if (!rows.empty()) after = rows.back().key;
  } while (!rows.empty());
}

void InputTable::dropUnkept() {
  for (Index& of : indexes_) {
    if (of.filled) of.index->rowDelAll();
    of.filled = false;
  }
}

void InputTable::emptyIndexes() {
  for (Index& of : indexes_) of.index->rowDelAll();
}

void InputTable::indexRows(std::span<const SignedRow> rows) {
  for (Index& of : indexes_) {
    if (!of.kept) continue;
    for (const SignedRow& row : rows) indexRow(*of.index, row);
  }
}

// NULL equals nothing, so that a row with one is not found anyway.
void InputTable::indexRow(SecondaryIndex& index, const SignedRow& row) {
  reader_.rowIs(row.key, row.value);
  IndexHash hash;
  for (const size_t column : index.columns()) {
    const SqlValue value = reader_.value(column);
    if (value.kind == SqlValue::Kind::null) return;
    value.kind == SqlValue::Kind::integer ? hash.add(value.integer) : hash.add(value.blob);
  }
  row.sign > 0 ? index.rowIs(hash.value(), row.key) : index.rowDel(hash.value(), row.key);
}

}  // namespace Pollen
