// Small steps over cJSON.
#include "pipeline/Json.h"

#include <algorithm>
#include <cmath>

#include "pipeline/Finding.h"

namespace Pipeline {

JsonPtr parsedJson(const std::string& path, std::string_view text) {
  const std::string copy(text);  // cJSON wants the terminator
  const char* end = nullptr;
  JsonPtr json(cJSON_ParseWithLengthOpts(copy.c_str(), copy.size() + 1, &end, true));
  if (json) return json;
  const auto line = 1 + std::count(copy.c_str(), end == nullptr ? copy.c_str() : end, '\n');
  throw PipelineError(path + ':' + std::to_string(line) + ": not JSON");
}

std::string printedJson(const cJSON& json) {
  char* text = cJSON_Print(&json);
  const std::string result = text == nullptr ? "" : text;
  cJSON_free(text);
  return result;
}

std::optional<std::string> stringItem(const cJSON* object, const char* key) {
  const cJSON* item = cJSON_GetObjectItem(object, key);
  if (cJSON_IsString(item) == 0) return std::nullopt;
  return std::string(item->valuestring);
}

std::optional<uint32_t> numberItem(const cJSON* object, const char* key) {
  const cJSON* item = cJSON_GetObjectItem(object, key);
  if (cJSON_IsNumber(item) == 0) return std::nullopt;
  const double number = item->valuedouble;
  if (!(number >= 0 && number <= UINT32_MAX) || number != std::floor(number)) return std::nullopt;
  return static_cast<uint32_t>(number);
}

const cJSON* arrayItem(const cJSON* object, const char* key) {
  const cJSON* item = cJSON_GetObjectItem(object, key);
  return cJSON_IsArray(item) != 0 ? item : nullptr;
}

void stringItemIs(cJSON* object, const char* key, std::string_view value) {
  cJSON_AddStringToObject(object, key, std::string(value).c_str());
}

void numberItemIs(cJSON* object, const char* key, double value) {
  cJSON_AddNumberToObject(object, key, value);
}

cJSON* newArrayItem(cJSON* object, const char* key) { return cJSON_AddArrayToObject(object, key); }

cJSON* newObjectIn(cJSON* array) {
  cJSON* object = cJSON_CreateObject();
  cJSON_AddItemToArray(array, object);
  return object;
}

}  // namespace Pipeline
