// Writing and reading the device JSON.
#include "pipeline/DeviceConfig.h"

#include <utility>

#include "pipeline/Files.h"
#include "pipeline/Finding.h"
#include "pipeline/JsonFault.h"
#include "pipeline/Names.h"
#include "pipeline/ValueText.h"
#include "platform/vela/Json.h"
#include "platform/vela/PlainText.h"

namespace Pipeline {
namespace {

TableKind kindOf(const std::string& tableClass, const Extensions& extensions) {
  const std::string lower = lowered(tableClass);
  const bool isDefault = lower == lowered(Pipeline::tableClass(TableKind::defaultEntry));
  if (isDefault && extensions.defaultActions) return TableKind::defaultEntry;
  if (lower == lowered(Pipeline::tableClass(TableKind::member))) return TableKind::member;
  if (lower == lowered(Pipeline::tableClass(TableKind::group))) return TableKind::group;
  return TableKind::match;
}

DeviceTable deviceTable(const TableLayout& layout) {
  DeviceTable table{layout.kind, layout.tableName, layout.typeName, layout.id, {}, {}};
  for (const Slot& slot : layout.slots) table.fields.push_back({slot.name, slot.type});
  return table;
}

void addTable(const DeviceTable& table, cJSON* tables) {
  cJSON* object = Vela::addObjectTo(tables);
  Vela::addString(object, "table_name", table.name);
  Vela::addNumber(object, "table_id", table.id);
  Vela::addString(object, "table_type", table.type);
  Vela::addString(object, "table_class", tableClass(table.kind));
  cJSON* fields = Vela::addArray(object, "table_fields");
  for (const DeviceField& field : table.fields) {
    cJSON* item = Vela::addObjectTo(fields);
    Vela::addString(item, "field_name", field.name);
    Vela::addString(item, "field_type", field.type);
  }
  cJSON* entries = Vela::addArray(object, "table_entries");
  for (const DeviceEntry& entry : table.entries) {
    cJSON* item = Vela::addObjectTo(entries);
    Vela::addString(item, "key", entry.key);
    Vela::addNumber(item, "action_id", entry.actionId);
    Vela::addString(item, "action_params", entry.actionParams);
    if (entry.priority != 0) Vela::addNumber(item, "priority", entry.priority);
    if (entry.isInitial) Vela::addNumber(item, "initial", 1);
  }
}

// Reads the parts of "p4rtc"; a missing part becomes an error that names the element.
class DeviceReader {
 public:
  DeviceReader(const cJSON* root, Findings* findings) : root_(root), findings_(findings) {}

  DeviceConfig run() {
    config_.extensions = readExtensions(*root_, findings_);
    step_ = "to create table types";
    forEach(root_, "table_type_definitions", whole, [this](const cJSON* item) { readType(item); });
    step_ = "to create tables";
    forEach(root_, "tables", whole, [this](const cJSON* item) { readTable(item); });
    step_ = "to create queries";
    if (cJSON_GetObjectItem(root_, "queries") == nullptr) return std::move(config_);
    forEach(root_, "queries", whole, [this](const cJSON* item) { readQuery(item); });
    return std::move(config_);
  }

 private:
  static constexpr const char* whole = "the device configuration";

  std::string cannotParse(const char* key) const {
    return std::string("Cannot parse ") + key + ' ' + step_;
  }

  void missing(const std::string& owner, const std::string& what, const char* key) {
    findings_->error(owner, "has no " + what + " \"" + key + '"', {cannotParse(key)});
  }

  template <typename Visit>
  void forEach(const cJSON* object, const char* key, const std::string& owner, Visit visit) {
    const cJSON* array = Vela::jsonArray(object, key);
    if (array == nullptr) return missing(owner, "array", key);
    for (const cJSON* item = array->child; item != nullptr; item = item->next) visit(item);
  }

  std::string text(const cJSON* object, const char* key, const std::string& owner) {
    const auto value = Vela::jsonString(object, key);
    if (!value || value->empty()) {
      missing(owner, "text", key);
      return "";
    }
    if (!Vela::isPlainLine(*value, value->size())) {
      findings_->error(owner, std::string("its \"") + key + "\" is no line of plain text",
                       {cannotParse(key)});
    }
    if (value->size() > maxNameBytes) {
      findings_->error(owner.substr(0, maxNameBytes),
                       std::string("its \"") + key + "\" is longer than " +
                           std::to_string(maxNameBytes) + " bytes",
                       {cannotParse(key)});
    }
    return *value;
  }

  void readType(const cJSON* item) {
    const std::string owner = "table type " + std::to_string(config_.types.size() + 1);
    std::string name = text(item, "table_type", owner);
    const auto definition = Vela::jsonString(item, "table_type_def");
    if (!definition) missing(owner, "text", "table_type_def");
    config_.types.push_back({std::move(name), definition.value_or("")});
  }

  void readQuery(const cJSON* item) {
    const auto path = Vela::jsonString(item, "output_table_path");
    try {
      config_.queries.push_back(deviceQuery(item, ""));
    } catch (const PipelineError& error) {
      findings_->error("query " + path.value_or("without a path"), error.what(),
                       {"Cannot parse query to create queries", error.what()});
    }
  }

  void readTable(const cJSON* item) {
    DeviceTable table;
    table.name = text(item, "table_name",
                      "element " + std::to_string(config_.tables.size() + 1) + " of \"tables\"");
    const std::string owner = "table " + table.name;
    table.type = text(item, "table_type", owner);
    const auto id = Vela::jsonNumber(item, "table_id");
    if (!id) missing(owner, "number of 32 bits", "table_id");
    table.id = id.value_or(0);
    table.kind = kindOf(Vela::jsonString(item, "table_class").value_or(""), config_.extensions);
    readFields(item, owner, &table);
    readEntries(item, owner, &table);
    config_.tables.push_back(std::move(table));
  }

  void readFields(const cJSON* item, const std::string& owner, DeviceTable* table) {
    if (Vela::jsonArray(item, "table_fields") == nullptr) {
      findings_->error(
          owner, "has no array \"table_fields\"",
          {"table_fields token is missing in JSON file, table " + table->name + " to create rows"});
      return;
    }
    const char* const step = std::exchange(step_, "to create rows");
    forEach(item, "table_fields", owner, [&](const cJSON* field) {
      std::string name = text(field, "field_name", owner);
      table->fields.push_back({std::move(name), text(field, "field_type", owner)});
    });
    step_ = step;
  }

  void readEntries(const cJSON* item, const std::string& owner, DeviceTable* table) {
    const cJSON* entries = cJSON_GetObjectItem(item, "table_entries");
    if (entries == nullptr) return;
    if (cJSON_IsArray(entries) == 0) {
      findings_->warning(owner, "gets no constant entries: its \"table_entries\" is no array");
      return;
    }
    forEach(item, "table_entries", owner, [&](const cJSON* entry) {
      const auto priority = Vela::jsonNumber(entry, "priority");
      const bool isNumber = priority || cJSON_GetObjectItem(entry, "priority") == nullptr;
      table->entries.push_back({Vela::jsonString(entry, "key").value_or(""),
                                Vela::jsonNumber(entry, "action_id").value_or(0),
                                Vela::jsonString(entry, "action_params").value_or(""),
                                priority.value_or(0), isInitialEntry(entry, config_.extensions),
                                isNumber ? "" : "its priority is no whole number of 32 bits"});
    });
  }

  const cJSON* root_;
  Findings* findings_;
  const char* step_ = "";  // the agent's step at the part being read
  DeviceConfig config_;
};

}  // namespace

DeviceConfig deviceConfig(const PipelineLayout& layout, const Extensions& extensions,
                          const std::vector<ConstantEntry>& entries) {
  DeviceConfig config{extensions, {}, {}, {}};
  for (const TableLayout& table : layout.tables) {
    config.types.push_back({table.typeName, definitionText(table)});
    DeviceTable device = deviceTable(table);
    for (const ConstantEntry& entry : entries) {
      if (table.kind != TableKind::match || entry.tableId != table.id) continue;
      device.entries.push_back({hexText(entry.key), entry.actionId, hexText(entry.actionParams),
                                entry.priority, entry.isInitial});
    }
    config.tables.push_back(std::move(device));
  }
  return config;
}

std::string deviceConfigText(const DeviceConfig& config) {
  const Vela::Json document(cJSON_CreateObject());
  cJSON* root = cJSON_AddObjectToObject(document.get(), "p4rtc");
  addExtensions(config.extensions, root);
  cJSON* types = Vela::addArray(root, "table_type_definitions");
  for (const DeviceType& type : config.types) {
    cJSON* object = Vela::addObjectTo(types);
    Vela::addString(object, "table_type", type.name);
    Vela::addString(object, "table_type_def", type.definition);
  }
  cJSON* tables = Vela::addArray(root, "tables");
  for (const DeviceTable& table : config.tables) addTable(table, tables);
  cJSON* queries = Vela::addArray(root, "queries");
  for (const DeviceQuery& query : config.queries) addQuery(query, queries);
  return Vela::jsonBytes(*document) + '\n';
}

std::optional<DeviceConfig> parseDeviceConfig(std::string_view json, Findings* findings) {
  JsonFault fault;
  const Vela::Json document = parseJson(json, &fault);
  if (!document) {
    findings->error("the device configuration, line and column " + fault.place, fault.what,
                    {"Cannot parse JSON file", "", fault.rest});
    return std::nullopt;
  }
  const cJSON* root = cJSON_GetObjectItem(document.get(), "p4rtc");
  if (cJSON_IsObject(root) == 0) {
    findings->error("the device configuration",
                    "has no object \"p4rtc\"; make the file with 'korvel pipeline build'",
                    {"Cannot find root token in the pipeline file"});
    return std::nullopt;
  }
  return DeviceReader(root, findings).run();
}

}  // namespace Pipeline
