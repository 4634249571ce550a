// The parts of `korvel status` that tell of ports, queries and VRFs.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "platform/orrery/Client.h"
#include "platform/vela/Json.h"

// The attributes of an entity; null when the agent does not have it (yet). Throws NoAgentError.
Vela::Json attributesAt(Orrery::Client& client, const std::string& path);

// Entries of a collection of an entity's attributes; names that are numbers in their order.
std::vector<std::pair<std::string, std::string>> sortedEntries(const cJSON* attributes,
                                                               const char* name);

// Adds a member a section, with the attributes of its entities; a section of which the agent has
// nothing is left out.
void addStatusSections(Orrery::Client& client, cJSON* status);
// Prints the findings of addStatusSections(); sections without findings print nothing.
void printStatusSections(const cJSON& status);
