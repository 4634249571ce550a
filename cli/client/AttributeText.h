// Attribute values for people.
#pragma once

#include <string>

struct cJSON;

std::string valueText(const cJSON& value);
// "batchTimeout" as "batch timeout".
std::string spacedName(const std::string& name);
// One line "name value"; a value of several lines, or a collection, on indented lines below.
void printAttribute(const std::string& label, const cJSON& value);
