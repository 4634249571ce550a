// cJSON with an owner, and errors that name the line.
#pragma once

#include <cjson/cJSON.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace Pipeline {

struct JsonDelete {
  void operator()(cJSON* json) const { cJSON_Delete(json); }
};
using JsonPtr = std::unique_ptr<cJSON, JsonDelete>;

// Throws PipelineError: "FILE:LINE: not JSON". Nothing may follow the document.
JsonPtr parsedJson(const std::string& path, std::string_view text);

std::string printedJson(const cJSON& json);

// A string item of an object; nothing when absent or no string.
std::optional<std::string> stringItem(const cJSON* object, const char* key);
// A whole number item that fits 32 bits.
std::optional<uint32_t> numberItem(const cJSON* object, const char* key);
// An array item; null when absent or no array.
const cJSON* arrayItem(const cJSON* object, const char* key);

// Each takes what it is given into the object.
void stringItemIs(cJSON* object, const char* key, std::string_view value);
void numberItemIs(cJSON* object, const char* key, double value);
cJSON* newArrayItem(cJSON* object, const char* key);
cJSON* newObjectIn(cJSON* array);

}  // namespace Pipeline
