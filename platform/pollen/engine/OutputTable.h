// The rows of a query, in its output table.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "platform/lattice/Database.h"
#include "platform/lattice/TableWatch.h"

namespace Pollen {

// The entry handle of a derived row: bit 62 and a hash of table and key, so that it is the same
// whenever the row comes again. Handles of other rows have bit 63, or neither.
uint64_t derivedHandle(std::string_view table, std::string_view key);
inline bool isDerivedHandle(uint64_t handle) { return handle >> 62 == 1; }

// A derived row has been written or, when `deleted`, removed by the change `sequence`.
using DerivedRowHandler =
    std::function<void(uint64_t handle, std::string_view key, uint64_t sequence, bool deleted)>;

// Result rows are counted: a row stands as long as one result row gives it. Of rows with the same
// key and different values, the one with the smallest value bytes stands. Keys with one result row
// cost no memory here. Call with the activity lock held. Database and handler outlive it; functions
// that write throw Brine::StoreError.
class OutputTable {
 public:
  OutputTable(Lattice::Database& database, Vela::Ptr<Lattice::ArTableInterface> table,
              std::shared_ptr<const Lattice::TableType> type, DerivedRowHandler changed);

  const Lattice::TableType& type() const { return *type_; }
  bool ready() const { return table_->ready(); }
  size_t rowCount() const { return table_->rowCount(); }

  // A result row comes (count 1) or goes (-1). A bad row only shows in trouble().
  void add(Lattice::Row row, int count) { gathered_.push_back({std::move(row), count}); }
  void badRow(std::string trouble, int count);
  // Writes the changes that follow from the rows added since.
  void apply();
  void forget() { gathered_.clear(); }  // the rows added since the last apply()

  // A complete picture replaces the known rows: rows that stood before, and that no row added
  // before endPicture() confirms, are deleted. loadPicture() and endPicture() take steps of at most
  // so many rows, and return whether there is more to do.
  void beginPicture();
  bool loadPicture(size_t most);
  bool endPicture(size_t most);

  // Call when the commit of the writes since the last one has succeeded, or failed.
  void finishCommit();
  void rollBack();
  bool wroteSinceCommit() const { return wrote_; }

  // Whether a row that never came was to go; a complete picture mends that.
  bool inconsistent() const { return inconsistent_; }
  // Why results cannot be rows, a reason a line; empty when all can.
  std::string trouble() const;

 private:
  struct Gathered {
    Lattice::Row row;
    int count;
  };
  struct Counted {
    std::string value;
    int64_t count;
  };
  using Values = std::vector<Counted>;  // ascending by value
  struct State {
    std::unordered_map<std::string, Values> several;  // keys with other than one result row
    std::set<std::string> conflicts;                  // keys with different values
    std::map<std::string, int64_t> badRows;           // the first ones
    int64_t badRowCount = 0;
  };
  using Group = std::pair<size_t, size_t>;  // of gathered_, of one key
  Values netValues(Group group) const;
  void applyGroup(Group group);
  Values known(const std::string& key, bool* confirmed);
  void merge(const Values& changes, Values* values);
  void severalIs(const std::string& key, const Values& values);
  void putSeveral(const std::string& key, const std::optional<Values>& values);
  void write(const std::string& key, const std::string* value);
  void addBadRow(const std::string& trouble, int count);
  std::string conflictText() const;

  const Vela::Ptr<Lattice::ArTableInterface> table_;
  const std::shared_ptr<const Lattice::TableType> type_;
  const DerivedRowHandler changed_;
  Lattice::StoredRows stored_;
  std::vector<Gathered> gathered_;
  State state_;
  std::unordered_set<std::string> unconfirmed_;  // keys of stored rows, while a picture is made
  Brine::Store::Position loadedTo_;
  bool wrote_ = false;  // since the last commit
  bool picturing_ = false;
  std::vector<std::string> fresh_;  // keys written in this commit, while a picture is made
  bool inconsistent_ = false;

  // To undo this commit: either the state before a picture began, or steps back, newest last.
  std::optional<State> former_;
  std::vector<std::pair<std::string, std::optional<Values>>> severalBefore_;
  std::vector<std::pair<std::string, int>> badRowsAdded_;
};

}  // namespace Pollen
