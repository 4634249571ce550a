#include "platform/pollen/sql/QueryCheck.h"

#include <algorithm>
#include <map>
#include <set>

#include "platform/pollen/sql/Sql.h"

namespace Pollen {
namespace {

using Lattice::TableType;
using Vela::Outcome;

constexpr const char* onlySelect = "only one SELECT statement is allowed";

// Their results depend on more than their arguments.
const std::set<std::string_view> notOfTheTables = {
    "changes",        "current_date",  "current_time", "current_timestamp",
    "date",           "datetime",      "julianday",    "last_insert_rowid",
    "load_extension", "random",        "randomblob",   "strftime",
    "time",           "total_changes", "unixepoch"};

// Reading is all a query may do, and of its inputs only.
int authorize(void*, int action, const char* object, const char* detail, const char*, const char*) {
  switch (action) {
    case SQLITE_SELECT:
    case SQLITE_RECURSIVE:
      return SQLITE_OK;
    case SQLITE_FUNCTION:
      return detail && notOfTheTables.contains(detail) ? SQLITE_DENY : SQLITE_OK;
    case SQLITE_READ:
      if (object && std::string_view(object).starts_with("sqlite_")) return SQLITE_DENY;
      return detail && std::string_view(detail) == "ROWID" ? SQLITE_DENY : SQLITE_OK;
    default:
      return SQLITE_DENY;
  }
}

// More than blanks, comments and semicolons behind the statement?
bool hasMore(sqlite3* database, const char* tail) {
  while (tail && *tail) {
    sqlite3_stmt* raw = nullptr;
    const char* from = tail;
    const int result = sqlite3_prepare_v2(database, tail, -1, &raw, &tail);
    const SqlStatement next(raw);
    if (result != SQLITE_OK || next) return true;
    if (tail == from) return false;
  }
  return false;
}

Outcome checkParameters(sqlite3_stmt* statement, const CheckedQuery& query) {
  for (int i = 1; i <= sqlite3_bind_parameter_count(statement); ++i) {
    const char* name = sqlite3_bind_parameter_name(statement, i);
    if (!name || *name == '?')
      return Outcome::failure("parameters are named, such as :name, not numbered");
    const auto& known = query.parameters;
    if (std::find(known.begin(), known.end(), name + 1) == known.end()) {
      return Outcome::failure(std::string("parameter ") + name + " has no value");
    }
  }
  return {};
}

Outcome checkResult(sqlite3_stmt* statement, const TableType& output) {
  const auto columns = sqlColumns(output);
  const int count = sqlite3_column_count(statement);
  if (static_cast<size_t>(count) != columns.size()) {
    return Outcome::failure("the query gives " + std::to_string(count) + " columns, but type " +
                            output.name() + " has " + std::to_string(columns.size()));
  }
  for (int i = 0; i < count; ++i) {
    const char* name = sqlite3_column_name(statement, i);
    if (name && columns[i].name == name) continue;
    return Outcome::failure("column " + std::to_string(i + 1) + " of the query is " +
                            (name ? name : "unnamed") + ", but that of type " + output.name() +
                            " is " + columns[i].name);
  }
  return {};
}

Outcome checkStatement(sqlite3* database, const CheckedQuery& query) {
  sqlite3_stmt* raw = nullptr;
  const char* tail = nullptr;
  const int result = sqlite3_prepare_v2(database, query.text.c_str(), -1, &raw, &tail);
  const SqlStatement statement(raw);
  if (result != SQLITE_OK) {
    const std::string trouble = sqlite3_errmsg(database);
    // Where a table or function is to blame, the text says so.
    return Outcome::failure(trouble == "not authorized" ? onlySelect : trouble);
  }
  if (!statement) return Outcome::failure("the query is empty");
  if (!sqlite3_stmt_readonly(raw) || sqlite3_stmt_isexplain(raw) || hasMore(database, tail)) {
    return Outcome::failure(onlySelect);
  }
  Outcome parameters = checkParameters(raw, query);
  return parameters.ok() ? checkResult(raw, *query.output) : parameters;
}

// Creates tables of the inputs' columns, without rows.
Outcome createTables(sqlite3* database, const CheckedQuery& query) {
  sqlite3_exec(database, "PRAGMA automatic_index = OFF", nullptr, nullptr, nullptr);
  for (const auto& [name, type] : query.inputs) {
    const std::string create = "CREATE TABLE " + quotedName(name) + " (" + columnList(*type) + ")";
    if (sqlite3_exec(database, create.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) {
      return Outcome::failure("input table " + name + ": " + sqlite3_errmsg(database));
    }
  }
  return {};
}

SqlDatabase emptyDatabase() {
  sqlite3* raw = nullptr;
  const int opened =
      sqlite3_open_v2(":memory:", &raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
  SqlDatabase database(raw);
  return opened == SQLITE_OK ? std::move(database) : nullptr;
}

// The inputs by the number of the page that their tables begin at.
std::map<int, std::string> inputsByPage(sqlite3* database) {
  std::map<int, std::string> inputs;
  sqlite3_stmt* raw = nullptr;
  sqlite3_prepare_v2(database, "SELECT rootpage, name FROM sqlite_schema", -1, &raw, nullptr);
  const SqlStatement statement(raw);
  while (raw && sqlite3_step(raw) == SQLITE_ROW) {
    inputs[sqlite3_column_int(raw, 0)] = reinterpret_cast<const char*>(sqlite3_column_text(raw, 1));
  }
  return inputs;
}

// The operations of nested loops over tables, and of expressions. Any other operation, of this or a
// later SQLite, means that a result row may come from more than one row of a table.
const std::set<std::string_view> loopOperations = {
    "Init",     "Transaction", "Goto",      "Halt",       "OpenRead",   "Rewind",   "Next",
    "Column",   "ResultRow",   "Integer",   "Int64",      "Real",       "String8",  "String",
    "Null",     "Blob",        "Variable",  "Copy",       "SCopy",      "Move",     "Eq",
    "Ne",       "Lt",          "Le",        "Gt",         "Ge",         "ElseEq",   "If",
    "IfNot",    "IsNull",      "NotNull",   "IsTrue",     "And",        "Or",       "Not",
    "BitAnd",   "BitOr",       "BitNot",    "ShiftLeft",  "ShiftRight", "Add",      "Subtract",
    "Multiply", "Divide",      "Remainder", "Concat",     "Cast",       "Affinity", "RealAffinity",
    "Function", "PureFunc",    "CollSeq",   "ZeroOrNull", "Noop",       "Explain"};

const char* reasonOf(std::string_view operation) {
  if (operation.starts_with("Agg") || operation == "Count") return "it aggregates";
  if (operation.starts_with("Sorter")) return "it sorts or groups";
  if (operation == "NullRow" || operation == "IfNullRow") return "it has an outer join";
  if (operation == "DecrJumpZero" || operation == "OffsetLimit") {
    return "it has a LIMIT or a sub-query";
  }
  if (operation == "OpenEphemeral" || operation == "OpenDup") {
    return "it has DISTINCT, IN, an order, a compound or a sub-query";
  }
  if (operation == "InitCoroutine" || operation == "Gosub" || operation == "Once" ||
      operation == "BeginSubrtn") {
    return "it has a sub-query";
  }
  return nullptr;
}

// Looks through the program that SQLite makes of a query.
class ProgramView {
 public:
  explicit ProgramView(const CheckedQuery& query, std::map<int, std::string> inputs)
      : query_(query), inputs_(std::move(inputs)) {}

  void operationIs(std::string_view name, int p2) {
    if (name == "OpenRead") {
      opened_.push_back(inputs_[p2]);
    } else if (name == "ResultRow") {
      ++resultRows_;
    } else if (!loopOperations.contains(name)) {
      strange_ = true;
      if (!reason_) reason_ = reasonOf(name);
    }
  }

  QueryMethod method() {
    QueryMethod method;
    method.why = whyComplete();
    if (!method.why.empty()) {
      for (const auto& [name, type] : query_.inputs) method.read.push_back(name);
      return method;
    }
    method.kind = opened_.size() == 1 ? QueryMethod::Kind::oneInput : QueryMethod::Kind::join;
    method.read = opened_;
    return method;
  }

 private:
  std::string whyComplete() {
    if (strange_) return reason_ ? reason_ : "it is more than a join";
    if (resultRows_ != 1) return "it is a compound";
    if (opened_.empty()) return "it reads no table";
    std::sort(opened_.begin(), opened_.end());
    const auto twice = std::adjacent_find(opened_.begin(), opened_.end());
    if (twice == opened_.end()) return {};
    return "it reads " + *twice + " twice; a second input name for its table makes it a join";
  }

  const CheckedQuery& query_;
  std::map<int, std::string> inputs_;
  std::vector<std::string> opened_;
  size_t resultRows_ = 0;
  bool strange_ = false;
  const char* reason_ = nullptr;
};

}  // namespace

void allowReadingOnly(sqlite3* database) { sqlite3_set_authorizer(database, authorize, nullptr); }

Vela::Outcome checkQuery(const CheckedQuery& query) {
  const SqlDatabase database = emptyDatabase();
  if (!database) return Outcome::failure("SQLite cannot be started");
  if (Outcome tables = createTables(database.get(), query); !tables.ok()) return tables;
  allowReadingOnly(database.get());
  return checkStatement(database.get(), query);
}

QueryMethod queryMethod(const CheckedQuery& query) {
  const SqlDatabase database = emptyDatabase();
  if (!database || !createTables(database.get(), query).ok()) return {};
  ProgramView program(query, inputsByPage(database.get()));
  sqlite3_stmt* raw = nullptr;
  const std::string text = "EXPLAIN " + query.text;
  sqlite3_prepare_v2(database.get(), text.c_str(), -1, &raw, nullptr);
  const SqlStatement statement(raw);
  while (raw && sqlite3_step(raw) == SQLITE_ROW) {
    const auto* name = reinterpret_cast<const char*>(sqlite3_column_text(raw, 1));
    program.operationIs(name ? name : "", sqlite3_column_int(raw, 3));
  }
  return program.method();
}

std::string methodText(const QueryMethod& method) {
  switch (method.kind) {
    case QueryMethod::Kind::oneInput:
      return "incremental: one input";
    case QueryMethod::Kind::join:
      return "incremental: join";
    default:
      return "complete evaluation: " + method.why;
  }
}

}  // namespace Pollen
