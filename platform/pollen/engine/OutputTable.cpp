#include "platform/pollen/engine/OutputTable.h"

#include <algorithm>
#include <tuple>

#include "platform/brine/Hash.h"
#include "platform/scrivel/Trace.h"

namespace Pollen {
namespace {

Scrivel::TraceHandle trace("OutputTable");

constexpr size_t mostBadRowsKept = 64;

std::string textOf(const std::vector<Lattice::ColumnText>& columns) {
  std::string text;
  for (const auto& column : columns) {
    text += (text.empty() ? "" : ", ") + column.name + "=" + column.text;
  }
  return text;
}

}  // namespace

uint64_t derivedHandle(std::string_view table, std::string_view key) {
  constexpr uint64_t bit = uint64_t{1} << 62;
  const uint64_t seed = Brine::hashOf(Brine::asBytes(table), 62);
  return bit | (Brine::hashOf(Brine::asBytes(key), seed) & (bit - 1));
}

OutputTable::OutputTable(Lattice::Database& database, Vela::Ptr<Lattice::ArTableInterface> table,
                         std::shared_ptr<const Lattice::TableType> type, DerivedRowHandler changed)
    : table_(std::move(table)),
      type_(std::move(type)),
      changed_(std::move(changed)),
      stored_(database.store(), table_->tableName()) {}

void OutputTable::badRow(std::string trouble, int count) {
  addBadRow(trouble, count);
  if (!former_) badRowsAdded_.emplace_back(std::move(trouble), count);
}

void OutputTable::addBadRow(const std::string& trouble, int count) {
  state_.badRowCount += count;
  const auto found = state_.badRows.find(trouble);
  if (found != state_.badRows.end()) {
    if ((found->second += count) <= 0) state_.badRows.erase(found);
  } else if (count > 0 && state_.badRows.size() < mostBadRowsKept) {
    state_.badRows[trouble] = count;
  }
}

void OutputTable::apply() {
  std::sort(gathered_.begin(), gathered_.end(), [](const Gathered& a, const Gathered& b) {
    return std::tie(a.row.key, a.row.value) < std::tie(b.row.key, b.row.value);
  });
  for (size_t from = 0; from < gathered_.size();) {
    size_t to = from + 1;
    while (to < gathered_.size() && gathered_[to].row.key == gathered_[from].row.key) ++to;
    applyGroup({from, to});
    from = to;
  }
  gathered_.clear();
}

// Net count per value; values that cancel out are dropped.
OutputTable::Values OutputTable::netValues(Group group) const {
  Values net;
  for (size_t i = group.first; i < group.second; ++i) {
    const Gathered& one = gathered_[i];
    if (!net.empty() && net.back().value == one.row.value) {
      net.back().count += one.count;
    } else {
      net.push_back({one.row.value, one.count});
    }
  }
  std::erase_if(net, [](const Counted& one) { return one.count == 0; });
  return net;
}

void OutputTable::applyGroup(Group group) {
  const Values changes = netValues(group);
  if (changes.empty()) return;
  const std::string& key = gathered_[group.first].row.key;
  bool confirmed = true;
  Values values = known(key, &confirmed);
  const std::string former = values.empty() ? "" : values.front().value;
  const bool stood = !values.empty();
  merge(changes, &values);
  severalIs(key, values);
  if (values.empty()) {
    if (stood) write(key, nullptr);
    return;
  }
  if (!confirmed) unconfirmed_.erase(key);
  if (!stood || values.front().value != former) write(key, &values.front().value);
}

// The values of the key's result rows. Empty for a stored row that a picture has not confirmed yet.
OutputTable::Values OutputTable::known(const std::string& key, bool* confirmed) {
  *confirmed = !unconfirmed_.contains(key);
  if (const auto found = state_.several.find(key); found != state_.several.end()) {
    return found->second;
  }
  if (!*confirmed) return {};
  const auto value = stored_.value(key);
  return value ? Values{{std::string(*value), 1}} : Values{};
}

void OutputTable::merge(const Values& changes, Values* values) {
  for (const Counted& change : changes) {
    const auto at = std::ranges::lower_bound(*values, change.value, {}, &Counted::value);
    if (at == values->end() || at->value != change.value) {
      if (change.count < 0) {
        inconsistent_ = true;
      } else {
        values->insert(at, change);
      }
    } else if ((at->count += change.count) <= 0) {
      if (at->count < 0) inconsistent_ = true;
      values->erase(at);
    }
  }
}

void OutputTable::severalIs(const std::string& key, const Values& values) {
  const bool plain = values.empty() || (values.size() == 1 && values[0].count == 1);
  const auto found = state_.several.find(key);
  if (plain && found == state_.several.end()) return;
  if (!former_) {
    severalBefore_.emplace_back(
        key, found == state_.several.end() ? std::nullopt : std::optional(found->second));
  }
  putSeveral(key, plain ? std::nullopt : std::optional(values));
}

void OutputTable::putSeveral(const std::string& key, const std::optional<Values>& values) {
  if (values && values->size() > 1) {
    state_.conflicts.insert(key);
  } else {
    state_.conflicts.erase(key);
  }
  if (values) {
    state_.several[key] = *values;
  } else {
    state_.several.erase(key);
  }
}

void OutputTable::write(const std::string& key, const std::string* value) {
  if (picturing_ && value) fresh_.push_back(key);
  const uint64_t handle = derivedHandle(table_->tableName(), key);
  const uint64_t sequence =
      value ? table_->rowIs({key, *value}, handle) : table_->rowDel(key, handle);
  wrote_ = wrote_ || sequence != 0;
  if (sequence != 0 && changed_) changed_(handle, key, sequence, !value);
}

void OutputTable::beginPicture() {
  gathered_.clear();
  unconfirmed_.clear();
  unconfirmed_.insert(fresh_.begin(), fresh_.end());
  loadedTo_ = {};
  inconsistent_ = false;
  picturing_ = true;
  if (!former_) former_ = std::move(state_);
  state_ = {};
}

bool OutputTable::loadPicture(size_t most) {
  size_t loaded = 0;
  const auto load = [&](std::string_view key, std::string_view) {
    unconfirmed_.emplace(key);
    return ++loaded < most;
  };
  stored_.forEachCommitted(load, &loadedTo_);
  return loaded >= most;
}

bool OutputTable::endPicture(size_t most) {
  for (; most > 0 && !unconfirmed_.empty(); --most) {
    const auto node = unconfirmed_.extract(unconfirmed_.begin());
    write(node.value(), nullptr);
  }
  picturing_ = !unconfirmed_.empty();
  return picturing_;
}

void OutputTable::finishCommit() {
  former_.reset();
  severalBefore_.clear();
  badRowsAdded_.clear();
  fresh_.clear();
  wrote_ = false;
}

void OutputTable::rollBack() {
  gathered_.clear();
  unconfirmed_.clear();
  if (former_) {
    state_ = std::move(*former_);
  } else {
    for (auto one = severalBefore_.rbegin(); one != severalBefore_.rend(); ++one) {
      putSeveral(one->first, one->second);
    }
    for (const auto& [trouble, count] : badRowsAdded_) addBadRow(trouble, -count);
  }
  finishCommit();
}

std::string OutputTable::trouble() const {
  std::string text = conflictText();
  if (state_.badRowCount <= 0) return text;
  if (!text.empty()) text += "\n";
  text += std::to_string(state_.badRowCount) + " results are no rows of the output type";
  return state_.badRows.empty() ? text : text + ", such as " + state_.badRows.begin()->first;
}

std::string OutputTable::conflictText() const try {
  if (state_.conflicts.empty()) return {};
  const std::string& key = *state_.conflicts.begin();
  const Values& values = state_.several.at(key);
  return std::to_string(state_.conflicts.size()) + " keys have several rows, such as " +
         table_->tableName() + " " + textOf(keyTexts(*type_, key)) + ": " +
         textOf(valueTexts(*type_, values[0].value)) + " (this one stands) and " +
         textOf(valueTexts(*type_, values[1].value));
} catch (const Lattice::TypeError& error) {
  return error.what();
}

}  // namespace Pollen
