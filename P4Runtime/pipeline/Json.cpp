#include "P4Runtime/pipeline/Json.h"

namespace P4Runtime {
namespace {

const cJSON* item(const cJSON* parent, const char* key) { return cJSON_GetObjectItem(parent, key); }

}  // namespace

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
  if (!cJSON_IsNumber(found) || !(found->valuedouble >= 0) || found->valuedouble > UINT32_MAX) {
    return std::nullopt;
  }
  return static_cast<uint32_t>(found->valuedouble);
}

std::optional<uint32_t> jsonNumber(const cJSON* parent, const char* key) {
  return jsonNumber(item(parent, key));
}

uint32_t jsonPreambleId(const cJSON* element) {
  return jsonNumber(jsonObject(element, "preamble"), "id").value_or(0);
}

std::string jsonPreambleName(const cJSON* element) {
  return jsonString(jsonObject(element, "preamble"), "name").value_or("");
}

}  // namespace P4Runtime
