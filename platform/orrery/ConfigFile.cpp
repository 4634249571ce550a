#include "platform/orrery/ConfigFile.h"

#include <utility>

namespace Orrery {

ConfigFile::ConfigFile(LayeredConfig& layers, std::string fileName)
    : layers_(layers), fileName_(std::move(fileName)), layer_(layers.layerAdd(fileName_)) {}

void ConfigFile::load() { layers_.layerIs(layer_, read()); }

std::vector<std::string> ConfigFile::faults() const try {
  std::vector<std::string> faults;
  ConfigReading reading = trialReading(layers_.database());
  reading.tell = [](const auto&, const auto*) {};
  reading.fault = [&faults](const auto&, const auto&, const ConfigError& fault) {
    faults.emplace_back(fault.what());
  };
  readConfig(fileName_, reading);
  return faults;
} catch (const ConfigError& fault) {
  return {fault.what()};
}

ConfigSettings ConfigFile::read() const {
  ConfigSettings all;
  ConfigReading reading = trialReading(layers_.database());
  reading.tell = [&all](const std::string& path, const Vela::AttributeBase* set) {
    auto& attributes = all[path];
    if (set) attributes[set->name()] = set->text();
  };
  reading.fault = [](const auto&, const auto&, const ConfigError& fault) {
    throw ConfigError(fault);
  };
  readConfig(fileName_, reading);
  return all;
}

std::vector<std::string> ConfigFile::reload() {
  std::vector<std::string> lines;
  for (ConfigLine& line : layers_.layerIs(layer_, read())) lines.push_back(std::move(line.text));
  return lines;
}

}  // namespace Orrery
