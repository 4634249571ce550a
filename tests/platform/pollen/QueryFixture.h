// Tables in a store that can fail, queries over them, and SQLite's results for the same rows in
// plain tables.
#pragma once

#include <sqlite3.h>

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <variant>
#include <vector>

#include "platform/lattice/Database.h"
#include "platform/lattice/TableWatch.h"
#include "platform/pollen/QueryConfigSm.h"
#include "platform/vela/ActivityLock.h"
#include "tests/platform/brine/FailingStore.h"
#include "tests/support/TempDir.h"

namespace TestSupport {

// Ends the caller's activity scope for a while, which commits.
using Unlocked = Vela::ActivityLockReleased;

// NULL, a number, or bytes.
using Cell = std::variant<std::monostate, int64_t, std::string>;
using Cells = std::vector<Cell>;  // of a row, as queries see its columns

// The row of simple columns and an action; nothing when a cell does not fit its column.
std::optional<Lattice::Row> packed(const Lattice::TableType& type, const Cells& cells);

struct QueryText {
  std::string path;
  std::string outputType;
  std::string text;
  std::map<std::string, std::string> inputs;  // name in the query -> table
  std::map<std::string, std::string> parameters = {};
  bool oneShot = false;
};

using Rows = std::map<std::string, std::string>;  // packed keys and values

class Tables {
 public:
  explicit Tables(const std::string& directory);
  ~Tables();

  void typeIs(const std::string& name, const std::string& definition);
  void tableIs(const std::string& name, const std::string& type);
  void queryIs(const QueryText& query);
  void turn();    // one of the reactor
  void settle();  // until no query is being built
  Pollen::QueryStatus& status(const std::string& path);

  // Writes the cells of a row, or removes the row with its key; within the caller's lock.
  void write(const std::string& table, const Cells& cells, bool deleted = false);
  Rows rows(const std::string& table);  // committed
  // The query's result over the committed rows of its inputs.
  Rows expected(const QueryText& query);

  FailingStore store;
  Vela::ReactorLoop loop;
  std::unique_ptr<Lattice::Database> database;
  std::map<std::string, Vela::Ptr<Lattice::ArTableInterface>> interfaces;
  Vela::Ptr<Pollen::QueryConfigDir> configs = Vela::make<Pollen::QueryConfigDir>("config");
  Vela::Ptr<Pollen::QueryStatusDir> statuses = Vela::make<Pollen::QueryStatusDir>("status");
  Vela::Ptr<Pollen::QueryConfigSm> sm;

 private:
  std::shared_ptr<const Lattice::TableType> typeOf(const std::string& table) const;
  std::set<std::string> outputs_;
  std::vector<std::string> types_;
};

}  // namespace TestSupport
