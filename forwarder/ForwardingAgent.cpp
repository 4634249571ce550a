// The way of a change: read it, see whether it needs programming, fail it if a rule says so, and
// report.
#include "forwarder/ForwardingAgent.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <optional>
#include <utility>

#include "forwarder/RowText.h"

namespace Forwarder {
namespace {

constexpr uint16_t codeFull = 1;
constexpr uint16_t codeUnreadable = 2;
constexpr unsigned changesBetweenProgress = 1024;

std::optional<uint64_t> numberIn(std::string_view text) {
  const bool hex = text.starts_with("0x") || text.starts_with("0X");
  if (hex) text.remove_prefix(2);
  uint64_t number = 0;
  const auto [end, error] =
      std::from_chars(text.data(), text.data() + text.size(), number, hex ? 16 : 10);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

// Numbers may be written as people do: 1 is 0x0001.
bool sameText(const std::string& wanted, const std::string& shown) {
  if (wanted == shown) return true;
  const auto number = numberIn(wanted);
  return number && number == numberIn(shown);
}

bool matches(const KeyRule& rule, const std::vector<Lattice::ColumnText>& key) {
  return std::all_of(rule.columns.begin(), rule.columns.end(), [&](const auto& wanted) {
    return std::any_of(key.begin(), key.end(), [&](const Lattice::ColumnText& column) {
      return column.name == wanted.first && sameText(wanted.second, column.text);
    });
  });
}

}  // namespace

const char* outcomeName(Outcome outcome) {
  static constexpr std::array<const char*, outcomeCount> names = {
      "inserted", "replaced", "deleted", "unchanged", "failed", "full", "unreadable"};
  return names[static_cast<size_t>(outcome)];
}

ProgrammedTable::ProgrammedTable(std::string name, std::shared_ptr<const Lattice::TableType> type)
    : name_(std::move(name)), type_(std::move(type)) {
  if (!type_) return;
  counted_ = std::ranges::any_of(type_->valueParts(), [](const auto& part) {
    return part.part == Lattice::TableType::Part::counter;
  });
  valueCheck_ = std::make_unique<ValueCheck>(*type_);
  rows_ = matchTableFactory(MatchLayout(*type_), counted_);
}

void ForwardingAgent::rulesIs(Rules rules) {
  rules_ = std::move(rules);
  reports_.latencyIs(rules_.latency);
  reports_.silentIs(rules_.silent);
  for (auto& [name, table] : tables_) doCopyRules(*table);
}

void ForwardingAgent::doCopyRules(ProgrammedTable& table) const {
  table.capacity_ = rules_.capacity(table.name()).value_or(SIZE_MAX);
  table.failing_ = rules_.failingTables.contains(table.name());
  const auto keys = rules_.failingKeys.find(table.name());
  table.failingKeys_ = keys == rules_.failingKeys.end() ? std::vector<KeyRule>() : keys->second;
}

const ProgrammedTable* ForwardingAgent::table(const std::string& name) const {
  const auto found = tables_.find(name);
  return found == tables_.end() ? nullptr : found->second.get();
}

// An agent that comes back shows the tables it had before; their rows stay unless the type is
// another.
void ForwardingAgent::tableAdded(const Lattice::FollowedTable& followed) {
  auto& table = tables_[followed.name];
  const bool same = table && bool(table->type()) == bool(followed.type) &&
                    (!followed.type || table->type()->definition() == followed.type->definition());
  if (!same) {
    std::erase_if(followed_, [&](const auto& known) { return known.second == table.get(); });
    if (table) doForgetFlows(*table);
    ++tablesVersion_;
    table = std::make_unique<ProgrammedTable>(followed.name, followed.type);
    doCopyRules(*table);
  }
  followed_[&followed] = table.get();
}

void ForwardingAgent::tableRemoved(const Lattice::FollowedTable& followed) {
  const auto table = tables_.find(followed.name);
  if (table == tables_.end()) return;
  std::erase_if(followed_, [&](const auto& known) { return known.second == table->second.get(); });
  doForgetFlows(*table->second);
  ++tablesVersion_;
  tables_.erase(table);
}

ProgrammedTable& ForwardingAgent::tableOf(const Lattice::FollowedTable& followed) {
  const auto known = followed_.find(&followed);
  if (known != followed_.end()) return *known->second;
  tableAdded(followed);
  return *followed_[&followed];
}

void ForwardingAgent::snapshotBegin() {
  ++snapshotNumber_;
  inSnapshot_ = true;
  deferred_.clear();  // of one that was cut off
}

void ForwardingAgent::snapshotEnd() {
  inSnapshot_ = false;
  ++snapshots_;
  for (auto& [name, table] : tables_) {
    if (table->rows()) doSweep(*table);
  }
  for (const Deferred& row : std::exchange(deferred_, {})) {
    const auto table = tables_.find(row.table);
    if (table == tables_.end()) continue;
    doProgram(*table->second, {.key = row.key,
                               .value = row.value,
                               .entryHandle = row.entryHandle,
                               .sequence = row.sequence});
  }
}

// In a state directory made anew a row that stays may have the handle that one of those that go
// had.
void ForwardingAgent::doSweep(ProgrammedTable& table) {
  const size_t swept = table.rows()->sweep([&](const StoredRow& row) {
    const bool gone = row.snapshot != snapshotNumber_;
    if (gone) doForgetFlow(table, row);
    return gone;
  });
  sweptRows_ += swept;
  if (swept > 0 && table.counted()) doRepublishFlows();
}

bool ForwardingAgent::anyCounted() const {
  return std::ranges::any_of(tables_, [](const auto& known) { return known.second->counted(); });
}

void ForwardingAgent::doRepublishFlows() {
  for (const auto& [name, table] : tables_) {
    if (!table->counted()) continue;
    table->rows()->forEach([&](const StoredRow& row) {
      const RowFlow& flow = *table->rows()->flow(row);
      if (flow.packets != 0 || flow.bytes != 0) flows_.countIs(flow);
    });
  }
}

void ForwardingAgent::doForgetFlow(const ProgrammedTable& table, const StoredRow& row) {
  if (table.counted()) flows_.countDel(table.rows()->flow(row)->entryHandle);
}

void ForwardingAgent::doForgetFlows(const ProgrammedTable& table) {
  if (!table.counted()) return;
  table.rows()->forEach([&](const StoredRow& row) { doForgetFlow(table, row); });
}

// A row of another entry handle is another entry's, whatever stood there. Counter columns count
// once: those of a change that repeats them say nothing of the packets since.
void ForwardingAgent::doCount(const ProgrammedTable& table, const StoredRow& row,
                              uint64_t entryHandle, const Counter& former) {
  RowFlow& flow = *table.rows()->flow(row);
  const bool another = flow.entryHandle != entryHandle;
  if (another) {
    if (flow.entryHandle != 0) flows_.countDel(flow.entryHandle);
    flow = {.entryHandle = entryHandle};
  }
  const Counter given = Lattice::counterOfRow(*table.type(), row.value());
  if (!given || !given->given) return;
  const bool repeated = !another && former && former->given && former->bytes == given->bytes &&
                        former->packets == given->packets;
  if (repeated) return;
  flow.bytes = given->bytes;
  flow.packets = given->packets;
  flows_.countIs(flow);
}

void ForwardingAgent::rowChanged(const Lattice::RowChange& change) {
  ProgrammedTable& table = tableOf(*change.table);
  if (!inSnapshot_ || !maybeDefer(table, change)) doProgram(table, change);
  if (++sinceProgress_ < changesBetweenProgress) return;
  sinceProgress_ = 0;
  if (progress_) progress_();
}

bool ForwardingAgent::maybeDefer(const ProgrammedTable& table, const Lattice::RowChange& change) {
  if (table.rowCount() < table.capacity_) return false;
  if (change.deleted || !table.rows()) return false;
  if (table.rows()->row(change.key)) return false;  // it replaces that one
  deferred_.push_back({table.name(), std::string(change.key), std::string(change.value),
                       change.entryHandle, change.sequence});
  return true;  // snapshotEnd() programs it
}

void ForwardingAgent::doProgram(ProgrammedTable& table, const Lattice::RowChange& change) {
  Verdict verdict;
  try {
    if (!table.type()) throw Lattice::TypeError("its type is not known here");
    std::string fault = table.rows()->layout().keyFault(change.key);
    if (!fault.empty()) throw Lattice::TypeError(fault);
    verdict = change.deleted ? deleted(table, change.key) : written(table, change);
  } catch (const Lattice::TypeError& e) {
    verdict = {Outcome::unreadable, codeUnreadable,
               fmt::format("cannot read a row of table {}: {}", table.name(), e.what())};
  }
  ++changes_[static_cast<size_t>(verdict.outcome)];
  if (log_) log_(logLine(table, change, verdict));
  reports_.report(change.entryHandle, change.sequence, verdict.errorCode,
                  std::move(verdict.message));
}

ForwardingAgent::Verdict ForwardingAgent::written(ProgrammedTable& table,
                                                  const Lattice::RowChange& change) {
  StoredRow* held = table.rows()->row(change.key);
  if (held) held->snapshot = snapshotNumber_;  // whatever comes of the change, its key is there
  const std::string fault = table.valueCheck_->fault(change.value);
  if (!fault.empty()) throw Lattice::TypeError(fault);
  Counter former;
  if (held && table.counted()) former = Lattice::counterOfRow(*table.type(), held->value());
  if (held && held->value() == change.value) {
    if (table.counted()) doCount(table, *held, change.entryHandle, former);
    return {};
  }
  Verdict verdict{.outcome = held ? Outcome::replaced : Outcome::inserted};
  if (maybeFail(table, change.key, verdict)) return verdict;
  if (!held && table.rowCount() >= table.capacity_) {
    return {
        Outcome::full, codeFull,
        fmt::format("table {} is full: its capacity is {} rows", table.name(), table.capacity_)};
  }
  StoredRow& row = table.rows()->rowIs(change.key, change.value);
  row.snapshot = snapshotNumber_;
  if (table.counted()) doCount(table, row, change.entryHandle, former);
  return verdict;
}

ForwardingAgent::Verdict ForwardingAgent::deleted(ProgrammedTable& table, std::string_view key) {
  const StoredRow* held = table.rows()->row(key);
  if (!held) return {};
  Verdict verdict{.outcome = Outcome::deleted};
  if (maybeFail(table, key, verdict)) return verdict;
  doForgetFlow(table, *held);
  table.rows()->rowDel(*held);
  return verdict;
}

bool ForwardingAgent::maybeFail(const ProgrammedTable& table, std::string_view key,
                                Verdict& verdict) {
  const auto fail = [&](std::string message) {
    verdict = {Outcome::failed, rules_.failCode, std::move(message)};
    return true;
  };
  ++writes_;
  if (table.failing_) return fail(fmt::format("table {} fails every write", table.name()));
  if (!table.failingKeys_.empty()) {
    const auto texts = Lattice::keyTexts(*table.type(), key);
    for (const KeyRule& rule : table.failingKeys_) {
      if (!matches(rule, texts)) continue;
      return fail(fmt::format("table {} fails the writes of {}", table.name(), keyRuleText(rule)));
    }
  }
  if (rules_.failEvery == 0 || writes_ % rules_.failEvery != 0) return false;
  return fail(fmt::format("write {} fails: one in {} does", writes_, rules_.failEvery));
}

std::string ForwardingAgent::logLine(const ProgrammedTable& table, const Lattice::RowChange& change,
                                     const Verdict& verdict) {
  std::string line = fmt::format("{} {} {}", outcomeName(verdict.outcome), table.name(),
                                 change.deleted ? keyText(table.type(), change.key)
                                                : rowText(table.type(), change.key, change.value));
  if (verdict.errorCode != 0) {
    line += fmt::format(": error code {}: {}", verdict.errorCode, verdict.message);
  }
  return line;
}

}  // namespace Forwarder
