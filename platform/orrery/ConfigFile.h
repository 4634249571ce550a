// The configuration file: read at the start, and again whenever the operator says so.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "platform/orrery/Config.h"
#include "platform/orrery/Database.h"

namespace Orrery {

// Call with the activity lock held; the database must outlive it.
class ConfigFile {
 public:
  ConfigFile(Database& database, std::string fileName);

  void load();  // as loadConfig(); throws ConfigError
  // A line for each fault of the file; nothing changes. Faults of settings that depend on others,
  // or on the machine, such as a file that is not there, are not found.
  std::vector<std::string> faults() const;

  // Applies the differences between this reading of the file and the former one; a setting that
  // stands in the file as it stood keeps what others have made of it. A setting that has left the
  // file gets its default, and an entity that the file made and names no more goes. Returns a line
  // for each setting that has changed, and for each that is refused, such as one that only a start
  // heeds; the next reload tries the latter again. Throws ConfigError for a file that is faulty
  // anywhere: nothing has changed then.
  std::vector<std::string> reload();

 private:
  using Settings = std::map<std::string, std::string>;  // attribute, value
  using Reading = std::map<std::string, Settings>;      // by path

  Reading read() const;
  ConfigReading reading() const;  // without tell() and fault()
  void applyPath(const std::string& path, const Settings& settings);
  void apply(const std::string& path, Vela::Entity& entity, const std::string& name,
             const std::string& text);
  void resetGone(const std::string& path, const Settings& settings);
  void removePath(const std::string& path);
  void say(const std::string& line) { lines_.push_back(fileName_ + ": " + line); }

  Database& database_;
  const std::string fileName_;
  Reading inForce_;  // what the file has brought
  std::vector<std::string> lines_;
};

}  // namespace Orrery
