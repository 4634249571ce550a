// Attribute values as JSON, and back.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/vela/Json.h"

namespace Vela {
class AttributeBase;
class Entity;
}  // namespace Vela

namespace Orrery {

// An attribute's value: a number or true/false where its type is one, an object of texts for a
// collection, a string otherwise (also for a number of 2^53 and more, which readers would round).
Vela::Json valueJson(const Vela::AttributeBase& attribute);
// An object of all attributes by name, but for a directory's collection of its entities.
Vela::Json attributesJson(const Vela::Entity& entity);
// The text form that an attribute of type `typeName` takes, from a JSON value of the fitting kind;
// nothing for a value of another kind.
std::optional<std::string> attributeText(const cJSON& value, std::string_view typeName);
std::string kindOf(const cJSON& value);  // "a string", "a number", ...

}  // namespace Orrery
