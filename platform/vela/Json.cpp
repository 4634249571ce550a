#include "platform/vela/Json.h"

#include <algorithm>
#include <cmath>

#include "platform/vela/PlainText.h"

namespace Vela {
namespace {

std::string taken(char* printed) {
  std::string text = printed ? printed : "";
  cJSON_free(printed);
  return text;
}

const cJSON* item(const cJSON* parent, const char* key) { return cJSON_GetObjectItem(parent, key); }

}  // namespace

Json parseJsonPrefix(std::string_view text, size_t* stopped) {
  const char* end = nullptr;
  Json json(cJSON_ParseWithLengthOpts(text.data(), text.size(), &end, false));
  *stopped = end == nullptr ? 0 : static_cast<size_t>(end - text.data());
  return json;
}

Json parseJson(std::string_view text, size_t* line) {
  size_t stopped = 0;
  Json json = parseJsonPrefix(text, &stopped);
  stopped = std::min(stopped, text.size());
  if (json && text.find_first_not_of(" \n\r\t", stopped) == text.npos) return json;
  if (line) *line = 1 + std::count(text.begin(), text.begin() + stopped, '\n');
  return nullptr;
}

std::string jsonLine(const cJSON& json) { return validUtf8(taken(cJSON_PrintUnformatted(&json))); }
std::string jsonText(const cJSON& json) { return validUtf8(jsonBytes(json)); }
std::string jsonBytes(const cJSON& json) { return taken(cJSON_Print(&json)); }

const char* stringMember(const cJSON& object, const char* key) {
  return cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(&object, key));
}

const cJSON* jsonArray(const cJSON* parent, const char* key) {
  const cJSON* found = item(parent, key);
  return cJSON_IsArray(found) ? found : nullptr;
}

const cJSON* jsonObject(const cJSON* parent, const char* key) {
  const cJSON* found = item(parent, key);
  return cJSON_IsObject(found) ? found : nullptr;
}

std::optional<std::string> jsonString(const cJSON* parent, const char* key) {
  const cJSON* found = item(parent, key);
  if (!cJSON_IsString(found)) return std::nullopt;
  return std::string(found->valuestring);
}

// cJSON's integer is signed and stops at its limits, so ids are taken from the double.
std::optional<uint32_t> jsonNumber(const cJSON* found) {
  if (!cJSON_IsNumber(found)) return std::nullopt;
  const double number = found->valuedouble;
  if (!(number >= 0 && number <= UINT32_MAX) || number != std::floor(number)) return std::nullopt;
  return static_cast<uint32_t>(number);
}

std::optional<uint32_t> jsonNumber(const cJSON* parent, const char* key) {
  return jsonNumber(item(parent, key));
}

void addString(cJSON* object, const char* key, std::string_view value) {
  cJSON_AddStringToObject(object, key, std::string(value).c_str());
}

void addNumber(cJSON* object, const char* key, double value) {
  cJSON_AddNumberToObject(object, key, value);
}

cJSON* addArray(cJSON* object, const char* key) { return cJSON_AddArrayToObject(object, key); }

cJSON* addObjectTo(cJSON* array) {
  cJSON* object = cJSON_CreateObject();
  cJSON_AddItemToArray(array, object);
  return object;
}

}  // namespace Vela
