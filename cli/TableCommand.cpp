#include "cli/TableCommand.h"

#include <cjson/cJSON.h>
#include <fmt/format.h>

#include <CLI/CLI.hpp>

#include <memory>
#include <string>
#include <vector>

#include "cli/ClientOptions.h"
#include "cli/TableDump.h"
#include "platform/orrery/Json.h"

namespace {

using Lattice::ColumnText;
using Orrery::Json;

std::string hexText(std::string_view bytes) {
  std::string text = "0x";
  for (const char c : bytes) text += fmt::format("{:02x}", static_cast<unsigned char>(c));
  return text;
}

// Columns of a key or a value; the raw bytes when they do not have the type's layout.
std::vector<ColumnText> columns(const DumpedTable& table, const std::string& bytes, bool key) {
  try {
    if (table.type) {
      return key ? keyTexts(*table.type, bytes) : valueTexts(*table.type, bytes);
    }
  } catch (const Lattice::TypeError&) {
  }
  return {{key ? "key" : "value", hexText(bytes)}};
}

std::string joined(const std::vector<ColumnText>& columns) {
  std::string text;
  for (const auto& column : columns) {
    text += fmt::format("{}{}={}", text.empty() ? "" : " ", column.name, column.text);
  }
  return text;
}

std::string rowLine(const DumpedTable& table, const DumpedRow& row) {
  std::string line = fmt::format("  {} -> {}", joined(columns(table, row.key, true)),
                                 joined(columns(table, row.value, false)));
  if (row.entryHandle != 0) line += fmt::format("  [handle {}", row.entryHandle);
  if (row.entryHandle != 0) line += row.state.empty() ? "]" : ", " + row.state + "]";
  return line;
}

Json columnsJson(const std::vector<ColumnText>& columns) {
  Json json(cJSON_CreateObject());
  for (const auto& column : columns) {
    cJSON_AddStringToObject(json.get(), column.name.c_str(), column.text.c_str());
  }
  return json;
}

std::string rowJson(const DumpedTable& table, const DumpedRow& row) {
  const Json json(cJSON_CreateObject());
  cJSON_AddStringToObject(json.get(), "table", table.name.c_str());
  cJSON_AddItemToObject(json.get(), "key", columnsJson(columns(table, row.key, true)).release());
  cJSON_AddItemToObject(json.get(), "value",
                        columnsJson(columns(table, row.value, false)).release());
  cJSON_AddStringToObject(json.get(), "entryHandle", std::to_string(row.entryHandle).c_str());
  cJSON_AddStringToObject(json.get(), "sequence", std::to_string(row.sequence).c_str());
  if (!row.state.empty()) cJSON_AddStringToObject(json.get(), "state", row.state.c_str());
  return Orrery::jsonLine(*json);
}

void runDump(const ClientOptions& options, const std::vector<std::string>& wanted) {
  for (const DumpedTable& table : dumpedTables(options.stateDirectory, wanted, true)) {
    if (!options.json) fmt::print("{} ({} rows)\n", table.name, table.rows.size());
    for (const DumpedRow& row : table.rows) {
      fmt::print("{}\n", options.json ? rowJson(table, row) : rowLine(table, row));
    }
  }
}

void runList(const ClientOptions& options) {
  const Json list(cJSON_CreateArray());
  for (const DumpedTable& table : dumpedTables(options.stateDirectory, {}, false)) {
    if (!options.json) {
      fmt::print("{:<40} {:>9} {}\n", table.name, table.rowCount, table.typeName);
      continue;
    }
    cJSON* one = cJSON_CreateObject();
    cJSON_AddStringToObject(one, "table", table.name.c_str());
    cJSON_AddNumberToObject(one, "rows", static_cast<double>(table.rowCount));
    cJSON_AddStringToObject(one, "type", table.typeName.c_str());
    cJSON_AddItemToArray(list.get(), one);
  }
  if (options.json) fmt::print("{}\n", Orrery::jsonText(*list));
}

}  // namespace

void addTableCommand(CLI::App& app) {
  CLI::App* table = app.add_subcommand("table", "Read the tables that forwarding agents follow");
  table->require_subcommand(1);
  const auto options = std::make_shared<ClientOptions>();
  const auto wanted = std::make_shared<std::vector<std::string>>();

  CLI::App* dump = table->add_subcommand("dump", "Print the rows of tables, as committed");
  dump->add_option("TABLE", *wanted, "Tables to print; all without it");
  addClientOptions(*dump, *options);
  dump->callback([options, wanted] { runDump(*options, *wanted); });

  CLI::App* list = table->add_subcommand("list", "Name the tables, their row counts and types");
  addClientOptions(*list, *options);
  list->callback([options] { runList(*options); });
}
