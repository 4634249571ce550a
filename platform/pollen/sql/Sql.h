// SQLite's handles with owners.
#pragma once

#include <sqlite3.h>

#include <memory>

namespace Pollen {

struct SqlClose {
  void operator()(sqlite3* database) const { sqlite3_close_v2(database); }
};
struct SqlFinalize {
  void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using SqlDatabase = std::unique_ptr<sqlite3, SqlClose>;
using SqlStatement = std::unique_ptr<sqlite3_stmt, SqlFinalize>;

}  // namespace Pollen
