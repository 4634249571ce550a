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

// A text that is no JSON: where that shows, and what is probably wrong there.
struct JsonFault {
  std::string place;  // "3:7", line and column
  std::string what;   // "not JSON: a comma is missing before \"tables\""
  std::string rest;   // the text from there on
};

// Null, and the fault, when `text` does not begin with a JSON document.
JsonPtr parsedJson(std::string_view text, JsonFault* fault);
// Throws PipelineError: "FILE:LINE:COLUMN: not JSON ...". Nothing may follow the document.
JsonPtr parsedJsonFile(const std::string& path, std::string_view text);

std::string printedJson(const cJSON& json);

// Items are found by name without regard to case, as cJSON_GetObjectItem() has it; the first
// counts. A string item of an object; nothing when absent or no string.
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
