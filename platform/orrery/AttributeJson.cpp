#include "platform/orrery/AttributeJson.h"

#include <cjson/cJSON.h>
#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "platform/orrery/Directory.h"
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

// A JSON number (no "inf") that a double represents exactly.
bool isJsonNumber(const std::string& text) {
  if (text.empty() || text.find_first_not_of("-+.0123456789eE") != std::string::npos) return false;
  return std::abs(std::strtod(text.c_str(), nullptr)) < exactLimit;
}

Vela::Json entriesJson(const Vela::AttributeBase& attribute) {
  Vela::Json object(cJSON_CreateObject());
  for (const auto& [key, value] : attribute.entryTexts(mostEntries)) {
    cJSON_AddStringToObject(object.get(), key.c_str(), value.c_str());
  }
  return object;
}

}  // namespace

Vela::Json valueJson(const Vela::AttributeBase& attribute) {
  const std::string_view type = attribute.typeName();
  const std::string text = attribute.text();
  if (type == "collection") return entriesJson(attribute);
  if (type == "bool") return Vela::Json(cJSON_CreateBool(text == "true"));
  if ((isInteger(type) || isNumber(type)) && isJsonNumber(text)) {
    return Vela::Json(cJSON_CreateRaw(text.c_str()));
  }
  return Vela::Json(cJSON_CreateString(text.c_str()));
}

Vela::Json attributesJson(const Vela::Entity& entity) {
  Vela::Json object(cJSON_CreateObject());
  const auto* directory = dynamic_cast<const Directory*>(&entity);
  for (const auto* attribute : entity.attributes()) {
    if (directory && attribute == &directory->entityCollection()) continue;
    cJSON_AddItemToObject(object.get(), attribute->name(), valueJson(*attribute).release());
  }
  return object;
}

std::string kindOf(const cJSON& value) {
  if (cJSON_IsString(&value)) return "a string";
  if (cJSON_IsNumber(&value)) return "a number";
  if (cJSON_IsBool(&value)) return "true or false";
  if (cJSON_IsArray(&value)) return "an array";
  if (cJSON_IsObject(&value)) return "an object";
  return "null";
}

std::optional<std::string> attributeText(const cJSON& value, std::string_view typeName) {
  if (typeName == "bool") {
    if (!cJSON_IsBool(&value)) return std::nullopt;
    return cJSON_IsTrue(&value) ? "true" : "false";
  }
  if (isInteger(typeName) && cJSON_IsNumber(&value)) {
    const double number = value.valuedouble;
    if (std::abs(number) > exactLimit || number != std::floor(number)) return std::nullopt;
    return fmt::format("{}", static_cast<int64_t>(number));
  }
  if (isNumber(typeName)) {
    if (!cJSON_IsNumber(&value)) return std::nullopt;
    return Vela::doubleToText(value.valuedouble);
  }
  // A string gives a 64-bit integer that a JSON number cannot hold.
  const bool acceptsString = !isInteger(typeName) || typeName.ends_with("64");
  if (!cJSON_IsString(&value) || !acceptsString) return std::nullopt;
  return value.valuestring;
}

}  // namespace Orrery
