// JSON documents with an owner.
#pragma once

#include <memory>
#include <string>
#include <string_view>

struct cJSON;

namespace Vela {
class AttributeBase;
}

namespace Orrery {

struct JsonDelete {
  void operator()(cJSON* json) const;
};
using Json = std::unique_ptr<cJSON, JsonDelete>;

// Null when the text is no JSON document, or more than one; `line` is then where it goes wrong.
Json parsedJson(std::string_view text, size_t* line = nullptr);
std::string jsonLine(const cJSON& json);  // without a line end
std::string jsonText(const cJSON& json);  // for people: indented, several lines

// A member that is a string; null when it is absent or anything else.
const char* stringMember(const cJSON& object, const char* key);

// An attribute's value: a number or true/false where its type is one, an object of texts for a
// collection, a string otherwise (also for a number of 2^53 and more, which readers would round).
Json valueJson(const Vela::AttributeBase& attribute);
// The text form that an attribute of type `typeName` takes, from a JSON value of the fitting kind.
// Answers false and what was expected when it is of another kind.
bool attributeText(const cJSON& value, std::string_view typeName, std::string* text);
std::string kindOf(const cJSON& value);  // "a string", "a number", ...

}  // namespace Orrery
