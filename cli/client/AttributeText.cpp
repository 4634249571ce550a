#include "cli/client/AttributeText.h"

#include <cjson/cJSON.h>
#include <fmt/format.h>

#include <cctype>
#include <sstream>

#include "platform/vela/Json.h"

std::string valueText(const cJSON& value) {
  if (cJSON_IsString(&value)) return value.valuestring;
  return Vela::jsonLine(value);
}

std::string spacedName(const std::string& name) {
  std::string text;
  for (const char c : name) {
    if (std::isupper(static_cast<unsigned char>(c))) text += ' ';
    text += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  return text;
}

void printAttribute(const std::string& label, const cJSON& value) {
  if (cJSON_IsObject(&value)) {
    fmt::print("{}\n", label);
    const cJSON* entry = nullptr;
    cJSON_ArrayForEach(entry, &value) fmt::print("  {} {}\n", entry->string, valueText(*entry));
    return;
  }
  const std::string text = valueText(value);
  if (text.find('\n') == std::string::npos) {
    fmt::print("{:<26} {}\n", label, text.empty() ? "-" : text);
    return;
  }
  fmt::print("{}\n", label);
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (!line.empty()) fmt::print("  {}\n", line);
  }
}
