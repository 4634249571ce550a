// For rows that are derived from others: watched tables, and a call before each commit in which
// derived rows join it.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/brine/Store.h"

namespace Lattice {

// A row that has changed since the last commit. Values are packed value columns.
struct ChangedRow {
  std::string key;
  std::optional<std::string> before;  // nothing: there was no such row
  std::optional<std::string> after;   // nothing: it is deleted
};

// Reads the rows of one table. Call with the activity lock held.
class StoredRows {
 public:
  StoredRows(Brine::Store& store, const std::string& table);

  // The packed value columns as written last, committed or not; valid until the next write.
  std::optional<std::string_view> value(std::string_view key);
  // The rows of the last commit, in no order, until `visit` returns false. `visit` must not write.
  // With a `position`, the next walk goes on where this one stopped.
  using Visit = std::function<bool(std::string_view key, std::string_view value)>;
  void forEachCommitted(const Visit& visit, Brine::Store::Position* position = nullptr);
  size_t count() const { return store_.count(rows_); }  // as written last

 private:
  Brine::Store& store_;
  const Brine::TableNumber rows_;
};

// Collects the changed rows of one table since the last commit. A table without a watch costs a
// branch a write. Call with the activity lock held.
class WatchedTable final : public StoredRows {
 public:
  using StoredRows::StoredRows;

  // For the database: the row is about to change. Only the first call for a key counts.
  void noteChange(std::string_view key, std::optional<std::string_view> before);
  bool anyNoted() const { return !before_.empty(); }
  void handleCommitted();
  void forgetChanges();  // after a roll-back

  // The rows of the last commit, ascending by key, from `from` on, until `visit` returns false.
  // `visit` must not write. The first call sorts the keys, which are then kept in order.
  using SortedVisit = StoredRows::Visit;
  void forEachCommittedFrom(std::string_view from, const SortedVisit& visit);

  const std::vector<ChangedRow>& changes();

 private:
  std::unordered_map<std::string, std::optional<std::string>> before_;
  std::vector<ChangedRow> changes_;
  bool collected_ = false;                                    // changes_ is of before_
  std::optional<std::set<std::string, std::less<>>> sorted_;  // keys of the last commit
};

// Watches as long as it lives. See Database::watch().
class TableWatch {
 public:
  explicit TableWatch(std::shared_ptr<WatchedTable> table) : table_(std::move(table)) {}

  // The rows changed since the last commit, ascending by key. Valid until the table's next write.
  const std::vector<ChangedRow>& changes() { return table_->changes(); }
  WatchedTable& rows() { return *table_; }

 private:
  std::shared_ptr<WatchedTable> table_;
};

// Called with the activity lock held, on the thread that commits.
class CommitObserver {
 public:
  virtual ~CommitObserver() = default;
  // Rows of watched tables are about to be committed. Rows written now, to any table, are part of
  // the same commit; changes of watched tables among them are visible at once, without another
  // call. An exception fails the commit as a full state directory does.
  virtual void onBeforeCommit() = 0;
  // The end of that commit; neither may throw. onDiscarded(): every row is as at the commit before,
  // and the watches tell the changes of the failed commit again.
  virtual void onCommitted() = 0;
  virtual void onDiscarded() = 0;
  // A batch has ended, well or not, with or without changes: Database::watch() works again.
  virtual void onBatchEnded() = 0;
  // The table is not bound any more, or to another interface. Its watches see nothing from now on.
  virtual void onWatchedTableGone(const std::string& name) = 0;
};

}  // namespace Lattice
