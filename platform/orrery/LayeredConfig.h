// Configuration that comes in layers, such as a file and a database outside, as one.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "platform/orrery/Database.h"

namespace Orrery {

// Attributes and their values as text, by path. A path without attributes is an entity to be made.
using ConfigSettings = std::map<std::string, std::map<std::string, std::string>>;

// About one setting, for the operator.
struct ConfigLine {
  std::string setting;  // "PATH ATTRIBUTE", or the path of an entity
  std::string text;     // begins with the layer's name
  bool isRefused = false;
};

// A setting of a later layer hides that of an earlier one. Call with the activity lock held; the
// database must outlive it.
class LayeredConfig {
 public:
  using Layer = size_t;

  explicit LayeredConfig(Database& database) : database_(database) {}
  LayeredConfig(const LayeredConfig&) = delete;
  LayeredConfig& operator=(const LayeredConfig&) = delete;

  Database& database() const { return database_; }
  Layer layerAdd(std::string name);

  // Applies the differences that the layer's new settings make. A setting that stands as it stood
  // keeps what others have made of it; one that has left all layers gets its default, and an entity
  // that they made and name no more goes. Values are texts of their attributes' types. Returns a
  // line for each setting that has changed, and for each that is refused, such as one that only a
  // start heeds: it keeps its former value, and the next call tries it again.
  std::vector<ConfigLine> layerIs(Layer layer, ConfigSettings settings);

 private:
  struct NamedSettings {
    std::string name;
    ConfigSettings settings;
  };
  using Attributes = ConfigSettings::mapped_type;

  ConfigSettings merged() const;
  void applyPath(const std::string& path, const Attributes& wanted);
  // False: it is refused, which has been said.
  bool apply(const std::string& path, Vela::Entity& entity, const std::string& name,
             const std::string& text);
  void resetGone(const std::string& path, const Attributes& wanted);
  void removePath(const std::string& path);
  const std::string& layerOf(const std::string& path, const std::string& attribute) const;
  void say(const std::string& path, const std::string& attribute, const std::string& text,
           bool isRefused = false);

  Database& database_;
  std::vector<NamedSettings> layers_;
  Layer changing_ = 0;
  ConfigSettings inForce_;  // what the layers have brought
  std::vector<ConfigLine> lines_;
};

}  // namespace Orrery
