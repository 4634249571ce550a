#include "platform/orrery/Json.h"

#include <cjson/cJSON.h>
#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "platform/vela/Entity.h"
#include "platform/vela/PlainText.h"

namespace Orrery {
namespace {

constexpr size_t mostEntries = 1000;             // of a collection in an answer
constexpr double exactLimit = 9007199254740992;  // beyond 2^53 a JSON number is not exact

bool isInteger(std::string_view typeName) {
  return typeName.starts_with("int") || typeName.starts_with("uint");
}

// "number", or which numbers.
bool isNumber(std::string_view typeName) { return typeName.starts_with("number"); }

// A number in JSON's eyes (no "inf") that a reader who makes a double of it gets right.
bool isJsonNumber(const std::string& text) {
  if (text.empty() || text.find_first_not_of("-+.0123456789eE") != std::string::npos) return false;
  return std::abs(std::strtod(text.c_str(), nullptr)) < exactLimit;
}

Json entriesJson(const Vela::AttributeBase& attribute) {
  Json object(cJSON_CreateObject());
  for (const auto& [key, value] : attribute.entryTexts(mostEntries)) {
    cJSON_AddStringToObject(object.get(), key.c_str(), value.c_str());
  }
  return object;
}

std::string taken(char* printed) {
  std::string text = Vela::validUtf8(printed ? printed : "");
  cJSON_free(printed);
  return text;
}

}  // namespace

void JsonDelete::operator()(cJSON* json) const { cJSON_Delete(json); }

Json parsedJson(std::string_view text, size_t* line) {
  const char* end = nullptr;
  Json json(cJSON_ParseWithLengthOpts(text.data(), text.size(), &end, false));
  const auto blank = [](char c) { return c == ' ' || c == '\n' || c == '\r' || c == '\t'; };
  if (!end) end = text.data();
  if (json && std::all_of(end, text.data() + text.size(), blank)) return json;
  if (line) {
    const char* from = text.data();
    *line = 1 + std::count(from, std::min(end, from + text.size()), '\n');
  }
  return nullptr;
}

// JSON is UTF-8, whatever the strings in it were made of.
std::string jsonLine(const cJSON& json) { return taken(cJSON_PrintUnformatted(&json)); }
std::string jsonText(const cJSON& json) { return taken(cJSON_Print(&json)); }

const char* stringMember(const cJSON& object, const char* key) {
  return cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(&object, key));
}

Json valueJson(const Vela::AttributeBase& attribute) {
  const std::string_view type = attribute.typeName();
  const std::string text = attribute.text();
  if (type == "collection") return entriesJson(attribute);
  if (type == "bool") return Json(cJSON_CreateBool(text == "true"));
  if ((isInteger(type) || isNumber(type)) && isJsonNumber(text)) {
    return Json(cJSON_CreateRaw(text.c_str()));
  }
  return Json(cJSON_CreateString(text.c_str()));
}

std::string kindOf(const cJSON& value) {
  if (cJSON_IsString(&value)) return "a string";
  if (cJSON_IsNumber(&value)) return "a number";
  if (cJSON_IsBool(&value)) return "true or false";
  if (cJSON_IsArray(&value)) return "an array";
  if (cJSON_IsObject(&value)) return "an object";
  return "null";
}

bool attributeText(const cJSON& value, std::string_view typeName, std::string* text) {
  if (typeName == "bool") {
    if (!cJSON_IsBool(&value)) return false;
    *text = cJSON_IsTrue(&value) ? "true" : "false";
    return true;
  }
  if (isInteger(typeName) && cJSON_IsNumber(&value)) {
    const double number = value.valuedouble;
    if (std::abs(number) > exactLimit || number != std::floor(number)) return false;
    *text = fmt::format("{}", static_cast<int64_t>(number));
    return true;
  }
  if (isNumber(typeName)) {
    if (!cJSON_IsNumber(&value)) return false;
    *text = Vela::doubleToText(value.valuedouble);
    return true;
  }
  // A string gives a 64-bit integer that a JSON number cannot hold.
  if (!cJSON_IsString(&value) || (isInteger(typeName) && !typeName.ends_with("64"))) return false;
  *text = value.valuestring;
  return true;
}

}  // namespace Orrery
