#include "platform/pollen/QueryCheck.h"

#include <sqlite3.h>

#include <algorithm>

namespace Pollen {
namespace {

using Lattice::Column;
using Lattice::ColumnType;
using Lattice::TableType;

struct DatabaseClose {
  void operator()(sqlite3* database) const { sqlite3_close(database); }
};
struct StatementFinalize {
  void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using SqlDatabase = std::unique_ptr<sqlite3, DatabaseClose>;
using Statement = std::unique_ptr<sqlite3_stmt, StatementFinalize>;

constexpr const char* onlySelect = "only one SELECT statement is allowed";

const char* sqlType(ColumnType type) {
  switch (type) {
    case ColumnType::u8:
    case ColumnType::u16:
    case ColumnType::u32:
    case ColumnType::u64:
      return "INTEGER";
    default:
      return "BLOB";
  }
}

void add(std::string name, const char* type, std::vector<SqlColumn>* columns) {
  std::replace(name.begin(), name.end(), '.', '_');
  columns->push_back({std::move(name), type});
}

void addAll(const std::string& part, std::initializer_list<const char*> names,
            std::vector<SqlColumn>* columns) {
  for (const char* name : names) add(part + "_" + name, "INTEGER", columns);
}

void addActions(const TableType& type, std::vector<SqlColumn>* columns) {
  add("action", "INTEGER", columns);
  for (const auto& action : type.actions()) {
    for (const Column& field : action.fields) {
      if (field.type == ColumnType::none) continue;
      add(action.name + "_" + field.name, sqlType(field.type), columns);
    }
  }
}

std::string quoted(const std::string& name) {
  std::string text = "\"";
  for (const char c : name) text += c == '"' ? std::string("\"\"") : std::string(1, c);
  return text + "\"";
}

std::string createStatement(const std::string& table, const TableType& type) {
  std::string text;
  for (const SqlColumn& column : sqlColumns(type)) {
    text += (text.empty() ? "" : ", ") + quoted(column.name) + " " + column.sqlType;
  }
  return "CREATE TABLE " + quoted(table) + " (" + text + ")";
}

// Reading is all a query may do, and of its inputs only.
int authorize(void*, int action, const char* object, const char* detail, const char*, const char*) {
  switch (action) {
    case SQLITE_SELECT:
    case SQLITE_RECURSIVE:
      return SQLITE_OK;
    case SQLITE_FUNCTION:
      return detail && std::string_view(detail) == "load_extension" ? SQLITE_DENY : SQLITE_OK;
    case SQLITE_READ:
      return object && std::string_view(object).starts_with("sqlite_") ? SQLITE_DENY : SQLITE_OK;
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
    const Statement next(raw);
    if (result != SQLITE_OK || next) return true;
    if (tail == from) return false;
  }
  return false;
}

std::string parameterTrouble(sqlite3_stmt* statement, const CheckedQuery& query) {
  for (int i = 1; i <= sqlite3_bind_parameter_count(statement); ++i) {
    const char* name = sqlite3_bind_parameter_name(statement, i);
    if (!name || *name == '?') return "parameters are named, such as :name, not numbered";
    const auto& known = query.parameters;
    if (std::find(known.begin(), known.end(), name + 1) == known.end()) {
      return std::string("parameter ") + name + " has no value";
    }
  }
  return {};
}

std::string resultTrouble(sqlite3_stmt* statement, const TableType& output) {
  const auto columns = sqlColumns(output);
  const int count = sqlite3_column_count(statement);
  if (static_cast<size_t>(count) != columns.size()) {
    return "the query gives " + std::to_string(count) + " columns, but type " + output.name() +
           " has " + std::to_string(columns.size());
  }
  for (int i = 0; i < count; ++i) {
    const char* name = sqlite3_column_name(statement, i);
    if (name && columns[i].name == name) continue;
    return "column " + std::to_string(i + 1) + " of the query is " + (name ? name : "unnamed") +
           ", but that of type " + output.name() + " is " + columns[i].name;
  }
  return {};
}

std::string statementTrouble(sqlite3* database, const CheckedQuery& query) {
  sqlite3_stmt* raw = nullptr;
  const char* tail = nullptr;
  const int result = sqlite3_prepare_v2(database, query.text.c_str(), -1, &raw, &tail);
  const Statement statement(raw);
  if (result != SQLITE_OK) {
    const std::string trouble = sqlite3_errmsg(database);
    return trouble == "not authorized" ? onlySelect
                                       : trouble;  // of a table or function, it says so
  }
  if (!statement) return "the query is empty";
  if (!sqlite3_stmt_readonly(raw) || sqlite3_stmt_isexplain(raw) || hasMore(database, tail)) {
    return onlySelect;
  }
  const std::string trouble = parameterTrouble(raw, query);
  return trouble.empty() ? resultTrouble(raw, *query.output) : trouble;
}

}  // namespace

std::vector<SqlColumn> sqlColumns(const TableType& type) {
  std::vector<SqlColumn> columns;
  for (const Column& column : type.keyColumns()) {
    if (column.type != ColumnType::none) add(column.name, sqlType(column.type), &columns);
  }
  for (const auto& part : type.valueParts()) {
    switch (part.part) {
      case TableType::Part::column:
        if (part.column.type != ColumnType::none) {
          add(part.column.name, sqlType(part.column.type), &columns);
        }
        break;
      case TableType::Part::action:
        addActions(type, &columns);
        break;
      case TableType::Part::meter:
        addAll("meter", {"flag", "cir", "cburst", "pir", "pburst"}, &columns);
        break;
      case TableType::Part::counter:
        addAll("counter", {"flag", "bytes", "packets"}, &columns);
        break;
    }
  }
  return columns;
}

std::string queryTrouble(const CheckedQuery& query) {
  sqlite3* raw = nullptr;
  const int opened =
      sqlite3_open_v2(":memory:", &raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
  const SqlDatabase database(raw);
  if (opened != SQLITE_OK) return "SQLite cannot be started";
  for (const auto& [name, type] : query.inputs) {
    const std::string create = createStatement(name, *type);
    if (sqlite3_exec(raw, create.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) {
      return "input table " + name + ": " + sqlite3_errmsg(raw);
    }
  }
  sqlite3_set_authorizer(raw, authorize, nullptr);
  return statementTrouble(raw, query);
}

}  // namespace Pollen
