// Loads the configuration file into the state database.
#pragma once

#include <functional>
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

// Reads the file without a change of the database: sets the attributes on entities that `entityAt`
// makes, and tells each entity's path, then each attribute that is set. Null is a path of no
// entity. Throws ConfigError.
void readConfig(
    const std::string& fileName,
    const std::function<Vela::Ptr<Vela::Entity>(const std::string& path)>& entityAt,
    const std::function<void(const std::string& path, const Vela::AttributeBase* set)>& tell);

}  // namespace Orrery
