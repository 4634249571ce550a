// Writing and reading the device JSON.
#include "pipeline/DeviceConfig.h"

#include "pipeline/Files.h"
#include "pipeline/Finding.h"
#include "pipeline/Json.h"
#include "pipeline/Names.h"
#include "pipeline/ValueText.h"

namespace Pipeline {
namespace {

TableKind kindOf(const std::string& tableClass) {
  const std::string lower = lowered(tableClass);
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
  cJSON* object = newObjectIn(tables);
  stringItemIs(object, "table_name", table.name);
  numberItemIs(object, "table_id", table.id);
  stringItemIs(object, "table_type", table.type);
  stringItemIs(object, "table_class", tableClass(table.kind));
  cJSON* fields = newArrayItem(object, "table_fields");
  for (const DeviceField& field : table.fields) {
    cJSON* item = newObjectIn(fields);
    stringItemIs(item, "field_name", field.name);
    stringItemIs(item, "field_type", field.type);
  }
  cJSON* entries = newArrayItem(object, "table_entries");
  for (const DeviceEntry& entry : table.entries) {
    cJSON* item = newObjectIn(entries);
    stringItemIs(item, "key", entry.key);
    numberItemIs(item, "action_id", entry.actionId);
    stringItemIs(item, "action_params", entry.actionParams);
    if (entry.priority != 0) numberItemIs(item, "priority", entry.priority);
  }
}

// Reads the parts of "p4rtc"; what is missing becomes an error that names the element.
class DeviceReader {
 public:
  DeviceReader(const cJSON* root, Findings* findings) : root_(root), findings_(findings) {}

  DeviceConfig run() {
    forEach(root_, "table_type_definitions", "the device configuration",
            [this](const cJSON* item) { readType(item); });
    forEach(root_, "tables", "the device configuration",
            [this](const cJSON* item) { readTable(item); });
    if (arrayItem(root_, "queries") != nullptr) {
      forEach(root_, "queries", "the device configuration",
              [this](const cJSON* item) { readQuery(item); });
    } else {
      findings_->error("the device configuration", "has no array \"queries\" (it may be empty)");
    }
    return std::move(config_);
  }

 private:
  template <typename Visit>
  void forEach(const cJSON* object, const char* key, const std::string& owner, Visit visit) {
    const cJSON* array = arrayItem(object, key);
    if (array == nullptr) {
      findings_->error(owner, "has no array \"" + std::string(key) + '"');
      return;
    }
    for (const cJSON* item = array->child; item != nullptr; item = item->next) visit(item);
  }

  std::string text(const cJSON* object, const char* key, const std::string& owner) {
    if (auto value = stringItem(object, key)) return *value;
    findings_->error(owner, "has no text \"" + std::string(key) + '"');
    return "";
  }

  uint32_t number(const cJSON* object, const char* key, const std::string& owner) {
    if (const auto value = numberItem(object, key)) return *value;
    findings_->error(owner, "has no number \"" + std::string(key) + "\" of 32 bits");
    return 0;
  }

  void readType(const cJSON* item) {
    const std::string owner = "table type " + std::to_string(config_.types.size() + 1);
    std::string name = text(item, "table_type", owner);
    config_.types.push_back({std::move(name), text(item, "table_type_def", owner)});
  }

  void readQuery(const cJSON* item) {
    const auto path = stringItem(item, "output_table_path");
    try {
      config_.queries.push_back(deviceQuery(item, ""));
    } catch (const PipelineError& error) {
      findings_->error("query " + path.value_or("without a path"), error.what());
    }
  }

  void readTable(const cJSON* item) {
    DeviceTable table;
    table.name = text(item, "table_name",
                      "element " + std::to_string(config_.tables.size() + 1) + " of \"tables\"");
    const std::string owner = "table " + table.name;
    table.type = text(item, "table_type", owner);
    table.id = number(item, "table_id", owner);
    table.kind = kindOf(text(item, "table_class", owner));
    forEach(item, "table_fields", owner, [&](const cJSON* field) {
      std::string name = text(field, "field_name", owner);
      table.fields.push_back({std::move(name), text(field, "field_type", owner)});
    });
    const cJSON* entries = arrayItem(item, "table_entries");
    const cJSON* first = entries == nullptr ? nullptr : entries->child;
    for (const cJSON* entry = first; entry != nullptr; entry = entry->next) {
      const std::string place =
          owner + ", constant entry " + std::to_string(table.entries.size() + 1);
      table.entries.push_back({text(entry, "key", place), number(entry, "action_id", place),
                               text(entry, "action_params", place),
                               numberItem(entry, "priority").value_or(0)});
    }
    config_.tables.push_back(std::move(table));
  }

  const cJSON* root_;
  Findings* findings_;
  DeviceConfig config_;
};

}  // namespace

DeviceConfig deviceConfig(const PipelineLayout& layout, const std::vector<ConstantEntry>& entries) {
  DeviceConfig config;
  for (const TableLayout& table : layout.tables) {
    config.types.push_back({table.typeName, definitionText(table)});
    DeviceTable device = deviceTable(table);
    for (const ConstantEntry& entry : entries) {
      if (table.kind != TableKind::match || entry.tableId != table.id) continue;
      device.entries.push_back(
          {hexText(entry.key), entry.actionId, hexText(entry.actionParams), entry.priority});
    }
    config.tables.push_back(std::move(device));
  }
  return config;
}

std::string deviceConfigText(const DeviceConfig& config) {
  const JsonPtr document(cJSON_CreateObject());
  cJSON* root = cJSON_AddObjectToObject(document.get(), "p4rtc");
  cJSON* types = newArrayItem(root, "table_type_definitions");
  for (const DeviceType& type : config.types) {
    cJSON* object = newObjectIn(types);
    stringItemIs(object, "table_type", type.name);
    stringItemIs(object, "table_type_def", type.definition);
  }
  cJSON* tables = newArrayItem(root, "tables");
  for (const DeviceTable& table : config.tables) addTable(table, tables);
  cJSON* queries = newArrayItem(root, "queries");
  for (const DeviceQuery& query : config.queries) addQuery(query, queries);
  return printedJson(*document) + '\n';
}

DeviceConfig parsedDeviceConfig(std::string_view json, Findings* findings) {
  const JsonPtr document = parsedJson("the device configuration", json);
  const cJSON* root = cJSON_GetObjectItem(document.get(), "p4rtc");
  if (cJSON_IsObject(root) == 0) {
    throw PipelineError(
        "its device configuration has no object \"p4rtc\"; make the file with 'korvel pipeline"
        " build'");
  }
  return DeviceReader(root, findings).run();
}

}  // namespace Pipeline
