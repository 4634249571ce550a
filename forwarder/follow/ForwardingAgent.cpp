// The way of a change: check it, see whether it needs programming, fail it if a rule says so, and
// report.
#include "forwarder/follow/ForwardingAgent.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "forwarder/table/RowText.h"

namespace Forwarder {
namespace {

constexpr uint16_t codeFull = 1;
constexpr uint16_t codeUnreadable = 2;
constexpr unsigned changesBetweenProgress = 1024;

bool sameType(const Lattice::TableType* a, const Lattice::TableType* b) {
  if (!a || !b) return a == b;
  return a->definition() == b->definition();
}

}  // namespace

const char* outcomeName(Outcome outcome) {
  static constexpr std::array<const char*, outcomeCount> names = {
      "inserted", "replaced", "deleted", "unchanged", "failed", "full", "unreadable"};
  return names[static_cast<size_t>(outcome)];
}

void ForwardingAgent::rulesIs(Rules rules) {
  rules_ = std::move(rules);
  reports_.latencyIs(rules_.latency);
  reports_.silentIs(rules_.silent);
  for (auto& [name, held] : tables_) held->rules = TableRules(rules_, name);
}

const ProgrammedTable* ForwardingAgent::table(const std::string& name) const {
  const auto found = tables_.find(name);
  return found == tables_.end() ? nullptr : &found->second->table;
}

std::vector<const ProgrammedTable*> ForwardingAgent::tables() const {
  std::vector<const ProgrammedTable*> tables;
  for (const auto& [name, held] : tables_) tables.push_back(&held->table);
  return tables;
}

// Asks the plane once a group of changes: rows are committed after the program that they are of.
void ForwardingAgent::beginGroup() {
  if (!plane_ || std::exchange(inGroup_, true)) return;
  isStale_ = plane_->isStale();
  if (!isStale_) return;
  const bool anyRows = std::ranges::any_of(
      tables_, [](const auto& known) { return known.second->table.rowCount() > 0; });
  if (anyRows) return;  // rowsEnd() gives it the rows
  isStale_ = false;
  plane_->rebuild({});
}

void ForwardingAgent::checkPlane() {
  if (!plane_ || inGroup_ || !plane_->isStale()) return;
  beginGroup();
  rowsEnd();
}

// Packets have seen nothing of the commit yet.
void ForwardingAgent::wholeCommit(const Lattice::WholeCommit& commit) {
  if (!plane_ || !inGroup_) return;
  decideRows();
  const bool fails = std::ranges::any_of(due_, [&](const Report& report) {
    return report.errorCode != 0 && commit.has(report.sequence);
  });
  if (fails) takeBackAll(commit);
}

void ForwardingAgent::aheadLost(const Lattice::WholeCommit& lost) {
  if (plane_ && inGroup_) decideRows();
  takeBackAll(lost);
}

void ForwardingAgent::takeBackAll(const Lattice::WholeCommit& commit) {
  const bool wholly =
      commit.visitFormer([this](const Lattice::RowChange& former) { takeBack(former); });
  if (!wholly && log_) log_("a commit could not be taken back wholly");
}

void ForwardingAgent::takeBack(const Lattice::RowChange& former) {
  Held& held = heldTable(*former.table);
  const StoredRow* row = held.table.rows() ? held.table.rows()->row(former.key) : nullptr;
  const bool isBack = former.deleted ? !row : row && row->value() == former.value;
  if (isBack) return;
  FlowBook::CounterColumns counters;
  if (row) counters = FlowBook::countersOf(held.table, *row);
  const Verdict verdict =
      former.deleted ? dropRow(held, *row) : putRow(held, former, row, counters);
  if (verdict.errorCode != 0 && log_) log_("a row could not be taken back: " + verdict.message);
}

void ForwardingAgent::decideRows() {
  if (std::exchange(isStale_, false)) plane_->rebuild(tables());
  retryWaiting(false);
}

void ForwardingAgent::rowsEnd() {
  if (!plane_ || !inGroup_) return;
  decideRows();
  inGroup_ = false;
  plane_->commit();
  if (flows_.takeUrgency() && countsSet_) countsSet_();
  for (Report& report : due_) {
    reports_.report(report.entryHandle, report.sequence, report.errorCode,
                    std::move(report.message));
  }
  due_.clear();
}

Lattice::Answer ForwardingAgent::answer(const Lattice::Question& question) {
  if (!plane_) return SubscriberHandler::answer(question);
  checkPlane();
  Lattice::Answer answer = plane_->answer(question);
  if (flows_.takeUrgency() && countsSet_) countsSet_();
  return answer;
}

// Changes that wait for one another are tried in rounds, until a round brings nothing. Then they
// wait on, or are refused.
void ForwardingAgent::retryWaiting(bool mayWait) {
  for (size_t before = SIZE_MAX; !waiting_.empty();) {
    const bool isLast = waiting_.size() == before;
    if (isLast && mayWait) return;
    before = waiting_.size();
    for (const Waiting& again : std::exchange(waiting_, {})) {
      program(heldTable(*again.table),
              {.table = again.table,
               .key = again.key,
               .value = again.value,
               .deleted = again.deleted,
               .entryHandle = again.entryHandle,
               .sequence = again.sequence},
              !isLast);
    }
  }
}

void ForwardingAgent::forgetFollowed(const Held& held) {
  if (plane_) plane_->eraseAll(held.table);
  std::erase_if(followed_, [&](const auto& known) { return known.second == &held; });
  flows_.forgetTable(held.table);
  ++tablesVersion_;
}

// An agent that comes back shows the tables it had before; their rows stay while the type is the
// same.
void ForwardingAgent::tableAdded(const Lattice::FollowedTable& followed) {
  beginGroup();
  auto& held = tables_[followed.name];
  if (!held || !sameType(held->table.type(), followed.type.get())) {
    if (held) forgetFollowed(*held);
    ++tablesVersion_;
    held = std::make_unique<Held>(
        Held{ProgrammedTable(followed.name, followed.type, plane_ != nullptr),
             TableRules(rules_, followed.name)});
  }
  followed_[&followed] = held.get();
}

void ForwardingAgent::tableRemoved(const Lattice::FollowedTable& followed) {
  beginGroup();
  const auto held = tables_.find(followed.name);
  if (held == tables_.end()) return;
  forgetFollowed(*held->second);
  tables_.erase(held);
}

void ForwardingAgent::tableRetyped(const Lattice::FollowedTable& followed) {
  beginGroup();
  ProgrammedTable& table = heldTable(followed).table;
  const auto former = table.typeIs(followed.type);
  ++tablesVersion_;
  if (!plane_) return;
  plane_->handleRetyped(table);
  isStale_ = plane_->isStale();
}

ForwardingAgent::Held& ForwardingAgent::heldTable(const Lattice::FollowedTable& followed) {
  const auto known = followed_.find(&followed);
  if (known != followed_.end()) return *known->second;
  tableAdded(followed);
  return *followed_[&followed];
}

void ForwardingAgent::snapshotBegin() {
  beginGroup();
  ++snapshotNumber_;
  inSnapshot_ = true;
  waiting_.clear();   // of changes that the snapshot takes the place of
  deferred_.clear();  // of a snapshot that was cut off
}

void ForwardingAgent::snapshotEnd() {
  inSnapshot_ = false;
  ++snapshots_;
  if (std::exchange(isStale_, false)) plane_->rebuild(tables());
  retryWaiting(true);
  sweepAll();
  for (const Deferred& row : std::exchange(deferred_, {})) {
    const auto held = tables_.find(row.table);
    if (held == tables_.end()) continue;
    program(*held->second, {.key = row.key,
                            .value = row.value,
                            .entryHandle = row.entryHandle,
                            .sequence = row.sequence});
  }
}

// A row goes from the plane once no other refers to it.
void ForwardingAgent::sweepAll() {
  constexpr int mostReferences = 2;  // from an entry to a group to a member
  for (int round = plane_ ? mostReferences : 0; round >= 0; --round) {
    for (auto& [name, held] : tables_) {
      if (held->table.rows()) sweep(held->table, round == 0);
    }
  }
}

// Removes the rows that the snapshot lacks. In a new state directory, a row that stays may have the
// entry handle of a row that goes: its count is published again.
void ForwardingAgent::sweep(ProgrammedTable& table, bool isLast) {
  const auto isErased = [&](const StoredRow& row) {
    return !plane_ || plane_->erase(table, row.key(), table.rows()->place(row)).isTaken();
  };
  const size_t swept = table.rows()->sweep([&](const StoredRow& row) {
    if (row.snapshot == snapshotNumber_) return false;
    if (!isErased(row) && !isLast) return false;
    flows_.forgetRow(table, row);
    return true;
  });
  sweptRows_ += swept;
  if (swept > 0 && table.hasCounter()) republishFlows();
}

bool ForwardingAgent::hasCounters() const {
  return std::ranges::any_of(tables_,
                             [](const auto& known) { return known.second->table.hasCounter(); });
}

void ForwardingAgent::republishFlows() {
  for (const auto& [name, held] : tables_) flows_.republishTable(held->table);
}

void ForwardingAgent::rowChanged(const Lattice::RowChange& change) {
  beginGroup();
  Held& held = heldTable(*change.table);
  if (!inSnapshot_ || !maybeDefer(held, change)) program(held, change);
  if (++changesSinceProgress_ < changesBetweenProgress) return;
  changesSinceProgress_ = 0;
  if (progress_) progress_();
}

// In a table of a million rows, each look-up waits for memory: those of some dozen changes wait
// together.
void ForwardingAgent::rowsComing(std::span<const Lattice::RowChange> changes) {
  const auto forEach = [&](const auto& load) {
    for (const Lattice::RowChange& change : changes) {
      if (const MatchTable* rows = heldTable(*change.table).table.rows()) load(*rows, change.key);
    }
  };
  forEach([](const MatchTable& rows, std::string_view key) { rows.loadSlot(key); });
  forEach([](const MatchTable& rows, std::string_view key) { rows.loadRow(key); });
  if (!plane_) return;
  forEach([this](const MatchTable& rows, std::string_view key) {
    const StoredRow* row = rows.row(key);
    const RowPlace place = row ? rows.place(*row) : nullptr;
    if (place) plane_->load(place);
  });
}

bool ForwardingAgent::maybeDefer(const Held& held, const Lattice::RowChange& change) {
  const ProgrammedTable& table = held.table;
  if (table.rowCount() < held.rules.capacity()) return false;
  if (change.deleted || !table.rows()) return false;
  if (table.rows()->row(change.key)) return false;  // it replaces that row
  deferred_.push_back({table.name(), std::string(change.key), std::string(change.value),
                       change.entryHandle, change.sequence});
  return true;  // snapshotEnd() programs it
}

void ForwardingAgent::program(Held& held, const Lattice::RowChange& change, bool mayWait) {
  Verdict verdict;
  if (isStale_) {
    verdict.mayBecomeTrue = true;
  } else {
    try {
      held.table.checkKey(change.key);
      verdict = change.deleted ? deleteRow(held, change.key) : writeRow(held, change);
    } catch (const Lattice::TypeError& e) {
      verdict = {Outcome::unreadable, codeUnreadable,
                 fmt::format("cannot read a row of table {}: {}", held.table.name(), e.what())};
    }
  }
  if (mayWait && verdict.mayBecomeTrue) {
    waiting_.push_back({change.table, std::string(change.key), std::string(change.value),
                        change.deleted, change.entryHandle, change.sequence});
    return;
  }
  ++changes_[static_cast<size_t>(verdict.outcome)];
  if (log_) log_(logLine(held.table, change, verdict));
  report(change, std::move(verdict));
}

void ForwardingAgent::report(const Lattice::RowChange& change, Verdict&& verdict) {
  if (plane_) {
    due_.push_back(
        {change.entryHandle, change.sequence, verdict.errorCode, std::move(verdict.message)});
    return;
  }
  if (flows_.takeUrgency() && countsSet_) countsSet_();
  reports_.report(change.entryHandle, change.sequence, verdict.errorCode,
                  std::move(verdict.message));
}

ForwardingAgent::Verdict ForwardingAgent::writeRow(Held& held, const Lattice::RowChange& change) {
  ProgrammedTable& table = held.table;
  StoredRow* former = table.rows()->row(change.key);
  if (former)
    former->snapshot = snapshotNumber_;  // the agent has the key, even if this write fails
  table.checkValue(change.value);
  FlowBook::CounterColumns formerCounters;
  if (former) formerCounters = FlowBook::countersOf(table, *former);
  if (former && former->value() == change.value) {
    handleFlow(table, *former, change.entryHandle, formerCounters);
    if (plane_) {
      plane_->handleIs(table, change.key, table.rows()->place(*former), change.entryHandle);
    }
    return {};
  }
  if (auto failure = maybeFail(held, change.key)) return *std::move(failure);
  const size_t capacity = held.rules.capacity();
  if (!former && table.rowCount() >= capacity) {
    return {Outcome::full, codeFull,
            fmt::format("table {} is full: its capacity is {} rows", table.name(), capacity)};
  }
  return putRow(held, change, former, formerCounters);
}

ForwardingAgent::Verdict ForwardingAgent::putRow(Held& held, const Lattice::RowChange& change,
                                                 const StoredRow* former,
                                                 const FlowBook::CounterColumns& formerCounters) {
  ProgrammedTable& table = held.table;
  const Outcome outcome = former ? Outcome::replaced : Outcome::inserted;
  RowPlace place = nullptr;
  if (plane_) {
    const PlaneVerdict taken = writePlane(table, change, former);
    if (!taken.isTaken()) return refusedByPlane(table, taken);
    place = taken.place;
  }
  StoredRow& row = table.rows()->rowIs(change.key, change.value);
  table.rows()->placeIs(row, place);
  row.snapshot = snapshotNumber_;
  handleFlow(table, row, change.entryHandle, formerCounters);
  return {.outcome = outcome};
}

PlaneVerdict ForwardingAgent::writePlane(const ProgrammedTable& table,
                                         const Lattice::RowChange& change,
                                         const StoredRow* former) {
  PlaneRow row{
      .key = change.key, .value = change.value, .former = {}, .entryHandle = change.entryHandle};
  if (former != nullptr) {
    row.former = former->value();
    row.place = table.rows()->place(*former);
  }
  return plane_->write(table, row);
}

void ForwardingAgent::handleFlow(const ProgrammedTable& table, const StoredRow& row,
                                 uint64_t entryHandle, const FlowBook::CounterColumns& former) {
  const bool isBegun = flows_.handleRowWritten(table, row, entryHandle, former);
  if (isBegun && plane_) plane_->countsAre(table, row.key(), *table.rows()->flow(row));
}

ForwardingAgent::Verdict ForwardingAgent::refusedByPlane(const ProgrammedTable& table,
                                                         const PlaneVerdict& verdict) {
  return {Outcome::failed, verdict.errorCode,
          fmt::format("table {}: {}", table.name(), verdict.message), verdict.mayBecomeTrue};
}

ForwardingAgent::Verdict ForwardingAgent::deleteRow(Held& held, std::string_view key) {
  const StoredRow* row = held.table.rows()->row(key);
  if (!row) return {};
  if (auto failure = maybeFail(held, key)) return *std::move(failure);
  return dropRow(held, *row);
}

ForwardingAgent::Verdict ForwardingAgent::dropRow(Held& held, const StoredRow& row) {
  if (plane_) {
    const PlaneVerdict taken = plane_->erase(held.table, row.key(), held.table.rows()->place(row));
    if (!taken.isTaken()) return refusedByPlane(held.table, taken);
  }
  flows_.forgetRow(held.table, row);
  held.table.rows()->rowDel(row);
  return {.outcome = Outcome::deleted};
}

// The verdict on a write that a rule makes fail.
std::optional<ForwardingAgent::Verdict> ForwardingAgent::maybeFail(const Held& held,
                                                                   std::string_view key) {
  ++writes_;
  std::optional<std::string> failure = held.rules.failureOf(held.table, key);
  if (!failure && rules_.failEvery != 0 && writes_ % rules_.failEvery == 0) {
    failure = fmt::format("write {} fails: one in {} does", writes_, rules_.failEvery);
  }
  if (!failure) return std::nullopt;
  return Verdict{Outcome::failed, rules_.failCode, *std::move(failure)};
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
