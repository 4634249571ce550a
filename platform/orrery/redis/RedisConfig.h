// Configuration as an operator writes it into Redis: fields of a hash, an entity each.
#pragma once

#include <map>
#include <optional>
#include <string>

#include "platform/orrery/Database.h"
#include "platform/orrery/LayeredConfig.h"
#include "platform/orrery/redis/RedisConnection.h"
#include "platform/vela/Json.h"

namespace Orrery {

struct RedisConfig {
  static constexpr size_t mostFaults = 20;  // that are told each by itself

  ConfigSettings settings;
  Vela::Json document;  // the same, of the shape of a configuration file; null: nothing was read
  std::map<std::string, std::string> faults;  // a line by "PATH ATTRIBUTE", or by path
  size_t moreFaults = 0;                      // beyond them
};

// Reads fields, each a path with the JSON object of its attributes. An attribute that is faulty
// keeps its value of `former`, as a field does that is faulty as a whole; without one it is passed
// over. `where` is for messages. Call with the activity lock held.
RedisConfig readConfigFields(const Database& database, const RedisHash& fields,
                             const std::string& where, const RedisConfig& former);

// The text of a file that keeps `config`, and the fields that such a text brings; nothing when it
// is no such text, or of the configuration of another place.
std::string configCopyText(const RedisConfig& config, const std::string& where);
std::optional<RedisHash> fieldsOfConfigCopy(const std::string& text, const std::string& where);

}  // namespace Orrery
