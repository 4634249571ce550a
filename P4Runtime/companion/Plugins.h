// The entities by which plugins are configured, asked and heard.
#pragma once

#include <cstdint>
#include <string>

#include "platform/orrery/Directory.h"
#include "platform/vela/Entity.h"

namespace P4Runtime {

// At "p4runtime/config/plugin/all": the requests to every plugin. A request is complete when a
// plugin's status has its number.
class AllPluginConfig final : public Vela::Entity {
 public:
  using Entity::Entity;
  const char* typeName() const override { return "P4Runtime::AllPluginConfig"; }

  VELA_READONLY_ATTRIBUTE(uint32_t, cleanupRequestId, 0)
  VELA_READONLY_ATTRIBUTE(uint32_t, disableRequestId, 0)

 public:
  void cleanupRequestIdInc(uint32_t n) { cleanupRequestIdIs(cleanupRequestId() + n); }
  void disableRequestIdInc(uint32_t n) { disableRequestIdIs(disableRequestId() + n); }
};

// At "p4runtime/config/plugin/NAME".
class PluginConfig final : public Vela::Entity {
 public:
  using Entity::Entity;
  const char* typeName() const override { return "P4Runtime::PluginConfig"; }

  // The plugin alone reads this text; by custom it is "NAME=VALUE NAME=VALUE".
  VELA_ATTRIBUTE(std::string, settings, "")
};

// At "p4runtime/config/plugin". A configuration file may give a plugin its settings before it is
// loaded, and name one that is not there.
class PluginConfigDir final : public Orrery::Directory {
 public:
  explicit PluginConfigDir(std::string name) : Directory(std::move(name)) {}
  const char* typeName() const override { return "P4Runtime::PluginConfigDir"; }

  Vela::Ptr<Vela::Entity> makeEntity(const std::string& name) const override;
};

// Letters, digits, "-", "_" and "."; not "all", which stands for every plugin.
bool isPluginName(const std::string& name);

// At "p4runtime/status/plugin/NAME".
class PluginStatus final : public Vela::Entity {
 public:
  using Entity::Entity;
  const char* typeName() const override { return "P4Runtime::PluginStatus"; }

  VELA_READONLY_ATTRIBUTE(uint32_t, cleanupRequestId, 0)  // completed up to here
  VELA_READONLY_ATTRIBUTE(uint32_t, disableRequestId, 0)
  VELA_READONLY_ATTRIBUTE(std::string, library, "")
  VELA_READONLY_ATTRIBUTE(std::string, version, "")
  VELA_READONLY_ATTRIBUTE(std::string, state, "")  // for people: "running", "disabled", ...
  // Values that the plugin publishes, by names of its own.
  VELA_COLLECTION(std::string, std::string, published)
};

}  // namespace P4Runtime
