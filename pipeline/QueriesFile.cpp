#include "pipeline/QueriesFile.h"

#include <utility>

#include "pipeline/Files.h"
#include "pipeline/Finding.h"
#include "pipeline/JsonFault.h"
#include "platform/vela/Json.h"

namespace Pipeline {

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

}  // namespace Pipeline
