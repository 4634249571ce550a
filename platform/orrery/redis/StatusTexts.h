// The status of a switch as JSON, for those who watch it from outside.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "platform/orrery/Database.h"

namespace Orrery {

using StatusTexts = std::map<std::string, std::string>;  // JSON objects by path

// The attributes of each entity below a directory called "status", but for those at and below
// the paths `passedOver`. Entities without attributes are left out. Call with the activity lock
// held.
StatusTexts statusTexts(const Database& database, const std::vector<std::string>& passedOver);

}  // namespace Orrery
