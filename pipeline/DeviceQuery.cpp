#include "pipeline/DeviceQuery.h"

#include "pipeline/Finding.h"
#include "pipeline/JsonFault.h"

namespace Pipeline {
namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;

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

void addQuery(const DeviceQuery& query, cJSON* queries) {
  cJSON* object = Vela::addObjectTo(queries);
  Vela::addString(object, "output_table_path", query.path);
  Vela::addString(object, "output_table_type", query.type);
  Vela::addString(object, "query", query.text);
  if (query.oneShot) cJSON_AddTrueToObject(object, "one_shot");
  addPairs(query.inputs, "input_tables", "table_key", "table_value", object);
  addPairs(query.params, "params", "param_key", "param_value", object);
}

}  // namespace Pipeline
