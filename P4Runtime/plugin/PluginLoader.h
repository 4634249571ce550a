// The default plugin loader: every NAME.so of a folder becomes a plugin, or gets a refusal.
#pragma once

#include <string>
#include <vector>

#include "P4Runtime/plugin/Plugin.h"
#include "P4Runtime/plugin/PluginContext.h"

namespace P4Runtime {

// Runs on the reactor, where plugins are called. A plugin that cannot be loaded is one line on
// standard error and a status that says why; the others are loaded all the same.
class PluginLoader final : public Vela::RefCounted {
 public:
  explicit PluginLoader(PluginContext context);
  ~PluginLoader() override;

  // In the order of their names. A folder that cannot be read is a line on standard error.
  void load(const std::string& directory);

 private:
  void loadFile(const std::string& path);
  void refuse(const std::string& name, const std::string& path, const std::string& why);
  void add(const Vela::Ptr<Plugin>& plugin);
  void tellMissing(const std::string& directory) const;

  const PluginContext context_;
  std::vector<Vela::Ptr<Plugin>> plugins_;
};

}  // namespace P4Runtime
