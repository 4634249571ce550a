// Finds the mistake in a JSON document.
#include "pipeline/JsonFault.h"

#include <algorithm>
#include <cctype>
#include <cstddef>

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

bool isBlank(char c) { return static_cast<unsigned char>(c) <= ' '; }

// The terminator belongs to the text: the parser then stops at the place of a mistake, not before.
Vela::Json parse(std::string_view text, bool nothingFollows, JsonFault* fault) {
  const std::string copy(text.substr(0, text.find('\0')));
  size_t at = 0;
  Vela::Json json = Vela::parseJsonPrefix({copy.c_str(), copy.size() + 1}, &at);
  if (json && (!nothingFollows ||
               std::all_of(copy.begin() + static_cast<std::ptrdiff_t>(at), copy.end(), isBlank)))
    return json;
  at = std::min(copy.find_first_not_of(blanks, at), copy.size());
  *fault = faultAt(copy, mistakeAt(copy, at));
  return nullptr;
}

}  // namespace

Vela::Json parseJson(std::string_view text, JsonFault* fault) { return parse(text, false, fault); }

Vela::Json parseJsonFile(const std::string& path, std::string_view text) {
  JsonFault fault;
  if (Vela::Json json = parse(text, true, &fault)) return json;
  throw PipelineError(path + ':' + fault.place + ": " + fault.what);
}

std::string requiredText(const cJSON* object, const char* key, const std::string& place) {
  if (auto value = Vela::jsonString(object, key)) return *value;
  throw PipelineError(place + "has no text \"" + key + '"');
}

}  // namespace Pipeline
