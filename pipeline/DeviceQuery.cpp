#include "pipeline/DeviceQuery.h"

#include <algorithm>
#include <set>

#include "pipeline/DeviceConfig.h"
#include "pipeline/Files.h"
#include "pipeline/Finding.h"
#include "pipeline/JsonFault.h"
#include "platform/pollen/sql/QueryCheck.h"

namespace Pipeline {
namespace {

using Vela::Outcome;

using Pairs = std::vector<std::pair<std::string, std::string>>;

std::string requiredText(const cJSON* object, const char* key, const std::string& place) {
  if (auto value = Vela::jsonString(object, key)) return *value;
  throw PipelineError(place + "has no text \"" + key + '"');
}

Pairs pairsOf(const cJSON* query, const char* array, const char* key, const char* value,
              const std::string& place) {
  if (cJSON_GetObjectItem(query, array) == nullptr) return {};
  const cJSON* pairs = Vela::jsonArray(query, array);
  if (pairs == nullptr) throw PipelineError(place + "its \"" + array + "\" is no array");
  Pairs result;
  for (const cJSON* pair = pairs->child; pair != nullptr; pair = pair->next) {
    const auto name = Vela::jsonString(pair, key);
    const auto what = Vela::jsonString(pair, value);
    if (!name || !what) {
      throw PipelineError(place + "an element of \"" + array + "\" lacks the text \"" + key +
                          "\" or \"" + value + '"');
    }
    result.emplace_back(*name, *what);
  }
  return result;
}

void addPairs(const Pairs& pairs, const char* array, const char* key, const char* value,
              cJSON* query) {
  cJSON* items = Vela::addArray(query, array);
  for (const auto& [name, what] : pairs) {
    cJSON* item = Vela::addObjectTo(items);
    Vela::addString(item, key, name);
    Vela::addString(item, value, what);
  }
}

std::string typeOfTable(const DeviceConfig& config, const std::string& table) {
  for (const DeviceTable& one : config.tables) {
    if (one.name == table) return one.type;
  }
  for (const DeviceQuery& one : config.queries) {
    if (one.path == table) return one.type;
  }
  return {};
}

// Looks up the types of the query's tables for `checked`.
Outcome resolveTables(const DeviceQuery& query, const DeviceConfig& config,
                      const CompiledTypes& types, Pollen::CheckedQuery* checked) {
  const auto compiled = [&](const std::string& name) {
    const auto found = types.find(name);
    return found == types.end() ? nullptr : found->second;
  };
  checked->text = query.text;
  checked->output = compiled(query.type);
  if (!checked->output) return Outcome::failure("its output type " + query.type + " is not known");
  for (const auto& [name, table] : query.inputs) {
    const auto type = compiled(typeOfTable(config, table));
    if (!type) return Outcome::failure("its input table " + table + " does not exist");
    checked->inputs.emplace_back(name, type);
  }
  for (const auto& [name, value] : query.params) checked->parameters.push_back(name);
  return {};
}

// Whether the query follows from its own output.
bool readsItself(const DeviceQuery& query, const DeviceConfig& config) {
  std::set<std::string> seen;
  std::vector<const DeviceQuery*> open{&query};
  while (!open.empty()) {
    const DeviceQuery& reader = *open.back();
    open.pop_back();
    for (const auto& [name, table] : reader.inputs) {
      if (table == query.path) return true;
      if (!seen.insert(table).second) continue;
      for (const DeviceQuery& one : config.queries) {
        if (one.path == table) open.push_back(&one);
      }
    }
  }
  return false;
}

// `paths` holds the names of the tables so far.
Outcome checkQuery(const DeviceQuery& query, const DeviceConfig& config, const CompiledTypes& types,
                   std::set<std::string>* paths) {
  if (query.path.empty() || query.path.size() > maxNameBytes) {
    return Outcome::failure("its output table needs a name of 1 to " +
                            std::to_string(maxNameBytes) + " bytes");
  }
  if (!paths->insert(query.path).second) {
    return Outcome::failure("its output table has the name of another table");
  }
  if (readsItself(query, config)) return Outcome::failure("it reads its own output");
  Pollen::CheckedQuery checked;
  Outcome resolved = resolveTables(query, config, types, &checked);
  return resolved.ok() ? Pollen::checkQuery(checked) : resolved;
}

}  // namespace

DeviceQuery deviceQuery(const cJSON* element, const std::string& place) {
  DeviceQuery query;
  query.path = requiredText(element, "output_table_path", place);
  query.type = requiredText(element, "output_table_type", place);
  query.text = requiredText(element, "query", place);
  query.oneShot = cJSON_IsTrue(cJSON_GetObjectItem(element, "one_shot")) != 0;
  query.inputs = pairsOf(element, "input_tables", "table_key", "table_value", place);
  query.params = pairsOf(element, "params", "param_key", "param_value", place);
  return query;
}

void readQueriesFile(const std::string& path, std::vector<DeviceType>* types,
                     std::vector<DeviceQuery>* queries) {
  const Vela::Json root = parseJsonFile(path, fileContents(path));
  const bool isArray = cJSON_IsArray(root.get()) != 0;
  const cJSON* array = isArray ? root.get() : Vela::jsonArray(root.get(), "queries");
  if (array == nullptr) {
    throw PipelineError(path +
                        ": expected an array of queries, or an object with one under"
                        " \"queries\"");
  }
  size_t number = 0;
  for (const cJSON* query = array->child; query != nullptr; query = query->next) {
    const std::string place = path + ": query " + std::to_string(++number) + ": ";
    queries->push_back(deviceQuery(query, place));
  }
  const cJSON* definitions =
      isArray ? nullptr : Vela::jsonArray(root.get(), "table_type_definitions");
  if (definitions == nullptr) return;
  number = 0;
  for (const cJSON* type = definitions->child; type != nullptr; type = type->next) {
    const std::string place = path + ": table type " + std::to_string(++number) + ": ";
    std::string name = requiredText(type, "table_type", place);
    types->push_back({std::move(name), requiredText(type, "table_type_def", place)});
  }
}

void addQuery(const DeviceQuery& query, cJSON* queries) {
  cJSON* object = Vela::addObjectTo(queries);
  Vela::addString(object, "output_table_path", query.path);
  Vela::addString(object, "output_table_type", query.type);
  Vela::addString(object, "query", query.text);
  if (query.oneShot) cJSON_AddTrueToObject(object, "one_shot");
  addPairs(query.inputs, "input_tables", "table_key", "table_value", object);
  addPairs(query.params, "params", "param_key", "param_value", object);
}

void checkQueries(const DeviceConfig& config, const CompiledTypes& types, Findings* findings) {
  std::set<std::string> paths;
  for (const DeviceTable& table : config.tables) paths.insert(table.name);
  for (const DeviceQuery& query : config.queries) {
    const Outcome sound = checkQuery(query, config, types, &paths);
    if (sound.ok()) continue;
    findings->error("query " + query.path, sound.reason(),
                    {"Query compilation failed for " + query.path, sound.reason()});
  }
}

std::string queryMethodText(const DeviceQuery& query, const DeviceConfig& config,
                            const CompiledTypes& types) {
  Pollen::CheckedQuery checked;
  if (!resolveTables(query, config, types, &checked).ok()) return {};
  if (!Pollen::checkQuery(checked).ok()) return {};
  return query.oneShot ? "one-shot" : methodText(Pollen::queryMethod(checked));
}

}  // namespace Pipeline
