#include "p4/program/Node.h"

#include <cmath>

#include "p4/program/ProgramError.h"

namespace P4 {

std::string quoted(std::string_view text) {
  if (text.size() > 80) return "\"" + std::string(text.substr(0, 77)) + "...\"";
  return "\"" + std::string(text) + "\"";
}

Node Node::operator[](const char* key) const {
  const cJSON* member = isObject() ? cJSON_GetObjectItemCaseSensitive(json_, key) : nullptr;
  return Node(member, place_.empty() ? key : place_ + "." + key);
}

bool Node::hasKey(const char* key) const { return isObject() && cJSON_HasObjectItem(json_, key); }

Node Node::at(size_t index) const {
  if (index >= size()) fail("element " + std::to_string(index) + " is missing");
  return elements()[index];
}

size_t Node::size() const {
  if (!present()) return 0;
  if (!isArray()) fail("an array is wanted here");
  return static_cast<size_t>(cJSON_GetArraySize(json_));
}

std::vector<Node> Node::elements() const {
  std::vector<Node> all;
  all.reserve(size());
  if (!present()) return all;
  for (const cJSON* element = json_->child; element; element = element->next)
    all.emplace_back(element, place_ + "[" + std::to_string(all.size()) + "]");
  return all;
}

std::string Node::text() const {
  if (!isText() || !json_->valuestring) fail("text is wanted here");
  return json_->valuestring;
}

std::string Node::name() const {
  std::string found = text();
  if (found.empty()) fail("a name is wanted here");
  return found;
}

std::string Node::textOr(const std::string& otherwise) const {
  return present() ? text() : otherwise;
}

uint32_t Node::integer() const {
  if (!isNumber()) fail("a whole number is wanted here");
  const double value = json_->valuedouble;
  if (!(value >= 0 && value <= 4294967295.0) || std::floor(value) != value)
    fail("a whole number of 0 to 4294967295 is wanted here");
  return static_cast<uint32_t>(value);
}

uint32_t Node::integerOr(uint32_t otherwise) const { return present() ? integer() : otherwise; }

bool Node::boolean() const {
  if (!cJSON_IsBool(json_)) fail("true or false is wanted here");
  return cJSON_IsTrue(json_);
}

bool Node::booleanOr(bool otherwise) const { return present() ? boolean() : otherwise; }

Number Node::number() const {
  const std::optional<Number> value = parseNumber(text());
  if (!value) fail(quoted(text()) + " is no hexadecimal number");
  if (bitLength(*value) > maxNumberBits)
    fail("numbers of more than " + std::to_string(maxNumberBits) + " bits are not executed");
  return *value;
}

std::string Node::bytes() const {
  const std::optional<std::string> value = parseBytes(text());
  if (!value) fail(quoted(text()) + " is no hexadecimal string of bytes");
  return *value;
}

std::string Node::bytes(size_t count) const {
  std::string value = bytes();
  if (value.size() != count)
    fail(quoted(text()) + " has " + std::to_string(value.size()) + " bytes where " +
         std::to_string(count) + " are wanted");
  return value;
}

void Node::fail(const std::string& message) const { throw ProgramError(place_, message); }

}  // namespace P4
