// The configuration file: read at the start, and again whenever the operator says so.
#pragma once

#include <string>
#include <vector>

#include "platform/orrery/Config.h"
#include "platform/orrery/LayeredConfig.h"

namespace Orrery {

// A layer of the configuration. Call with the activity lock held; `layers` must outlive it.
class ConfigFile {
 public:
  ConfigFile(LayeredConfig& layers, std::string fileName);

  void load();  // throws ConfigError for a file that is faulty anywhere: nothing is set then
  // A line for each fault of the file; nothing changes. Faults of settings that depend on others,
  // or on the machine, such as a file that is not there, are not found.
  std::vector<std::string> faults() const;
  // Applies the differences between this reading of the file and the former one, and returns the
  // lines about them; see LayeredConfig::layerIs(). Throws ConfigError as load() does.
  std::vector<std::string> reload();

 private:
  ConfigSettings read() const;

  LayeredConfig& layers_;
  const std::string fileName_;
  const LayeredConfig::Layer layer_;
};

}  // namespace Orrery
