// JSON documents that people write: parsed, or else the place of the mistake and its likely nature.
#pragma once

#include <string>
#include <string_view>

#include "platform/vela/Json.h"

namespace Pipeline {

// A mistake in a JSON document.
struct JsonFault {
  std::string place;  // "3:7", line and column
  std::string what;   // "not JSON: a comma is missing before \"tables\""
  std::string rest;   // the text from there on
};

// Null, and the fault, when `text` does not begin with a JSON document.
Vela::Json parseJson(std::string_view text, JsonFault* fault);
// Throws PipelineError: "FILE:LINE:COLUMN: not JSON ...". Nothing may follow the document.
Vela::Json parseJsonFile(const std::string& path, std::string_view text);

// Throws PipelineError, which begins with `place`, when the object has no text there.
std::string requiredText(const cJSON* object, const char* key, const std::string& place);

}  // namespace Pipeline
