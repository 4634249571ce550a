// Loads the configuration file into the state database.
#pragma once

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/orrery/Database.h"
#include "platform/vela/Json.h"

namespace Orrery {

// One line: the file, the key, and the expected value.
class ConfigError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The file is one JSON object, with comments as in ConfigText.h: keys are paths of entities that
// are there, or that their directory makes on demand; values are objects of attribute values.
// Throws ConfigError; the attributes before the fault have then been set. Call with the activity
// lock held.
void loadConfig(Database& database, const std::string& fileName);
// The same from a text; `fileName` is for messages.
void loadConfigText(Database& database, const std::string& text, const std::string& fileName);

// Reads a configuration without a change of the database.
struct ConfigReading {
  // The entity on which the attributes of a path are tried; null: it is no path of an entity.
  std::function<Vela::Ptr<Vela::Entity>(const std::string& path)> entityAt;
  // Told each path, and then each attribute that is set there.
  std::function<void(const std::string& path, const Vela::AttributeBase* set)> tell;
  // Told each path once all its attributes were tried; may be empty.
  std::function<void(const std::string& path, const Vela::Ptr<Vela::Entity>& entity)> whole = {};
  // Told each faulty path (the attribute is empty) or attribute, which is passed over.
  std::function<void(const std::string& path, const std::string& attribute, const ConfigError&)>
      fault;
  std::function<std::vector<std::string>()> paths;  // that a wrong one may have meant
};

// Tries attributes on entities of their own, with the defaults of their types. The caller sets
// tell() and fault(); the database must outlive it.
ConfigReading trialReading(const Database& database);

// Throws ConfigError for a file that cannot be read or is no JSON object.
void readConfig(const std::string& fileName, const ConfigReading& reading);
// The same from an object; `name` is for messages.
void readConfig(const cJSON& object, const std::string& name, const ConfigReading& reading);

// Like the entity at the path, with the defaults of its type, and not in the database; or null.
Vela::Ptr<Vela::Entity> freshEntityAt(const Database& database, const std::string& path);

// All paths of the database, ascending.
std::vector<std::string> pathsIn(const Database& database);

}  // namespace Orrery
