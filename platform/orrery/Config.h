// Loads the configuration file into the state database.
#pragma once

#include <stdexcept>
#include <string>

#include "platform/orrery/Database.h"

namespace Orrery {

// One line: the file, the key, and the expected value.
class ConfigError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The file is one JSON object: keys are paths of entities that are there, or that their directory
// makes on demand; values are objects of attribute values. Throws ConfigError; the attributes
// before the fault have then been set. Call with the activity lock held.
void loadConfig(Database& database, const std::string& fileName);
// The same from a text; `fileName` is for messages.
void loadConfigText(Database& database, const std::string& text, const std::string& fileName);

}  // namespace Orrery
