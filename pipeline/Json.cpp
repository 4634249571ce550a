// Small steps over cJSON.
#include "pipeline/Json.h"

#include <algorithm>
#include <cctype>
#include <cmath>

#include "pipeline/Finding.h"

namespace Pipeline {

namespace {

constexpr std::string_view blanks = " \t\r\n";

std::string excerpt(std::string_view text) {
  constexpr size_t most = 24;
  std::string line(text.substr(0, text.find_first_of("\r\n")));
  std::ranges::replace(line, '\t', ' ');
  if (line.size() > most) line = line.substr(0, most) + "...";
  return line;
}

char lastBefore(std::string_view text, size_t at) {
  const size_t last = text.substr(0, at).find_last_not_of(blanks);
  return last == text.npos ? '\0' : text[last];
}

bool closes(std::string_view text, size_t at) {
  return at < text.size() && (text[at] == '}' || text[at] == ']');
}

// cJSON stops behind the end of an object where it looks for one more name.
size_t mistakeAt(std::string_view text, size_t stopped) {
  const bool behind = stopped > 0 && closes(text, stopped - 1);
  return behind && lastBefore(text, stopped - 1) == ',' ? stopped - 1 : stopped;
}

std::string likelyMistake(std::string_view text, size_t at) {
  if (closes(text, at) && lastBefore(text, at) == ',') {
    return "there is a comma too many before " + excerpt(text.substr(at));
  }
  if (at >= text.size()) return "the text ends too early";
  const std::string found = excerpt(text.substr(at));
  const auto isWord = [](char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0; };
  const char before = lastBefore(text, at);
  const char here = text[at];
  const bool valueEnds = before == '"' || before == '}' || before == ']' || isWord(before);
  const bool valueBegins = here == '"' || here == '{' || here == '[' || isWord(here);
  if (valueEnds && valueBegins) return "a comma or a colon is missing before " + found;
  return "unexpected " + found;
}

JsonFault faultAt(std::string_view text, size_t at) {
  const std::string_view before = text.substr(0, at);
  const auto line = 1 + std::count(before.begin(), before.end(), '\n');
  const size_t column = at - (before.rfind('\n') + 1) + 1;  // npos + 1 is 0
  return {std::to_string(line) + ':' + std::to_string(column),
          "not JSON: " + likelyMistake(text, at), std::string(text.substr(at))};
}

JsonPtr parsed(std::string_view text, bool nothingFollows, JsonFault* fault) {
  const std::string copy(text);  // cJSON wants the terminator
  const char* end = nullptr;
  JsonPtr json(cJSON_ParseWithOpts(copy.c_str(), &end, nothingFollows));
  if (json) return json;
  size_t at = end == nullptr ? 0 : static_cast<size_t>(end - copy.c_str());
  at = std::min(copy.find_first_not_of(blanks, at), copy.size());
  *fault = faultAt(copy, mistakeAt(copy, at));
  return nullptr;
}

}  // namespace

JsonPtr parsedJson(std::string_view text, JsonFault* fault) { return parsed(text, false, fault); }

JsonPtr parsedJsonFile(const std::string& path, std::string_view text) {
  JsonFault fault;
  if (JsonPtr json = parsed(text, true, &fault)) return json;
  throw PipelineError(path + ':' + fault.place + ": " + fault.what);
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
