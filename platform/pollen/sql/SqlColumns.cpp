// The columns that queries see.
#include <algorithm>

#include "platform/lattice/types/RowWalk.h"
#include "platform/pollen/sql/SqlRow.h"

namespace Pollen {
namespace {

using Lattice::Column;
using Lattice::ColumnType;
using Lattice::TableType;

const char* sqlType(ColumnType type) { return type <= ColumnType::u64 ? "INTEGER" : "BLOB"; }

void add(std::string name, const char* type, std::vector<SqlColumn>* columns) {
  std::replace(name.begin(), name.end(), '.', '_');
  columns->push_back({std::move(name), type});
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

}  // namespace

std::vector<SqlColumn> sqlColumns(const TableType& type) {
  std::vector<SqlColumn> columns;
  for (const Column& column : type.keyColumns()) {
    if (column.type != ColumnType::none) add(column.name, sqlType(column.type), &columns);
  }
  for (const auto& part : type.valueParts()) {
    if (part.part == TableType::Part::action) {
      addActions(type, &columns);
      continue;
    }
    const bool whole = part.part == TableType::Part::column;
    for (const Column& column : Lattice::fixedColumns(part)) {
      if (column.type == ColumnType::none) continue;
      add(whole ? column.name : part.column.name + "_" + column.name, sqlType(column.type),
          &columns);
    }
  }
  return columns;
}

std::string quotedName(const std::string& name) {
  std::string text = "\"";
  for (const char c : name) text += c == '"' ? std::string("\"\"") : std::string(1, c);
  return text + "\"";
}

std::string columnList(const TableType& type) {
  std::string text;
  for (const SqlColumn& column : sqlColumns(type)) {
    text += (text.empty() ? "" : ", ") + quotedName(column.name) + " " + column.sqlType;
  }
  return text;
}

}  // namespace Pollen
