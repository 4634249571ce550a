// Settings made while the agent runs, kept for its next start.
#pragma once

#include <cjson/cJSON.h>

#include <string>
#include <vector>

#include "platform/orrery/Database.h"
#include "platform/vela/Json.h"

namespace Orrery {

// Follows the requests from outside that set, create and delete below a "config" directory, in a
// file of the shape of a configuration file; the value of a deleted path is null. Call with the
// activity lock held.
class KeptSettings {
 public:
  // `passedOver`: beginnings of paths, with the attribute behind, of settings that are not kept.
  // The database outlives this.
  KeptSettings(Database& database, std::string file, std::vector<std::string> passedOver);

  // Makes the file's settings, if there is one. Returns a line for each path whose settings cannot
  // be made; they are forgotten.
  std::vector<std::string> load();
  // A request that has been carried out. Throws std::system_error when the file cannot be written;
  // it is written as a whole with the next setting.
  void note(const cJSON& request);

 private:
  bool isKept(const std::string& path, const std::string& attribute) const;
  bool noteSet(const std::string& path, const cJSON* attribute);
  bool noteCreated(const std::string& path, const cJSON* attributes);
  bool noteDeleted(const std::string& path);
  cJSON* attributesOf(const std::string& path);

  Database& database_;
  const std::string file_;
  const std::vector<std::string> passedOver_;
  Vela::Json settings_;
};

}  // namespace Orrery
