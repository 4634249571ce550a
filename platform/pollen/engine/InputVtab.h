// The callbacks by which SQLite reads an input.
#pragma once

#include <sqlite3.h>

#include <memory>
#include <string>
#include <vector>

#include "platform/pollen/engine/QueryDatabase.h"

namespace Pollen {

extern const sqlite3_module inputModule;

// How a cursor finds its rows: the index number that SQLite keeps of a plan.
enum InputPlan : int { scanPlan = 0, driverPlan = 1, keyPlan = 2, prefixPlan = 3, indexPlan = 4 };
// indexPlan + n is a look-up in index number n. A prefix of n columns comes with n arguments.

struct InputCursor;

struct InputVtab : sqlite3_vtab {
  InputVtab(QueryDatabase& database, size_t number);
  ~InputVtab();

  int bestIndex(sqlite3_index_info* info);
  InputTable& input() const { return *database.inputs_[number]; }
  std::exception_ptr& thrown() const { return database.thrown_; }

  QueryDatabase& database;
  const size_t number;
  std::vector<std::unique_ptr<InputCursor>> spare;  // closed cursors, to be opened again

 private:
  struct Equalities;
  void choose(sqlite3_index_info* info, const std::vector<int>& constraints, int plan) const;
};

struct InputCursor : sqlite3_vtab_cursor {
  explicit InputCursor(InputVtab& table);

  void reopen() { filters_ = 0; }
  void filter(int plan, int argc, sqlite3_value** argv);
  void next();
  bool atEnd() const { return atEnd_; }
  void column(sqlite3_context* context, int number);
  sqlite3_int64 rowid() const;

 private:
  InputTable& input() const { return table_.input(); }
  void lookUpKey(int argc, sqlite3_value** argv);
  void beginIndex(size_t number, int argc, sqlite3_value** argv);
  void beginWalk();
  void fetch();
  void show();
  void showDriver();

  InputVtab& table_;
  RowReader reader_;
  int plan_ = scanPlan;
  bool atEnd_ = true;
  std::vector<InputTable::OwnedRow> rows_;
  size_t at_ = 0;
  size_t most_ = 0;         // to be fetched next
  bool exhausted_ = false;  // nothing is left to fetch
  std::string prefix_;
  std::string after_;
  uint64_t hash_ = 0;
  std::vector<std::string> keys_;
  unsigned filters_ = 0;  // since it was opened
};

}  // namespace Pollen
