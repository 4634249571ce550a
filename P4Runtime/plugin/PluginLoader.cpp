#include "P4Runtime/plugin/PluginLoader.h"

#include <algorithm>
#include <filesystem>
#include <system_error>
#include <utility>

#include "platform/scrivel/Trace.h"
#include "platform/vela/ErrorLine.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("PluginLoader");

std::vector<std::string> librariesIn(const std::string& directory, std::error_code& error) {
  std::vector<std::string> paths;
  for (std::filesystem::directory_iterator at(directory, error), end; !error && at != end;
       at.increment(error)) {
    if (at->path().extension() == ".so") paths.push_back(at->path().string());
  }
  std::sort(paths.begin(), paths.end());
  return paths;
}

}  // namespace

PluginLoader::PluginLoader(PluginContext context) : context_(std::move(context)) {}

// Plugins know the directories that hold them.
PluginLoader::~PluginLoader() {
  for (const auto& plugin : plugins_) context_.pluginDataDir->entityDel(plugin->name());
}

void PluginLoader::load(const std::string& directory) {
  SCRIVEL_TRACE(1, "load ", directory);
  std::error_code error;
  const std::vector<std::string> paths = librariesIn(directory, error);
  if (error) {
    Vela::tellError(
        "no plugins: cannot read {}: {}; set pluginDirectory of "
        "p4runtime/config/agent to a folder of plugins",
        directory, error.message());
  }
  for (const std::string& path : paths) loadFile(path);
  tellMissing(directory);
}

void PluginLoader::loadFile(const std::string& path) {
  const std::string name = PluginLibrary::nameOf(path);
  if (!isPluginName(name)) {
    return refuse("", path,
                  "a plugin's name is up to 64 letters, digits, '-', '_' and '.'; rename it");
  }
  if (context_.pluginDataDir->entityHas(name)) {
    return refuse("", path, "there is a plugin of that name already");
  }
  try {
    PluginLibrary library(path);
    add(Vela::make<Plugin>(name, std::move(library), context_));
  } catch (const PluginError& e) {
    refuse(name, path, e.what());
  }
}

// `name` is empty when no plugin may be called so.
void PluginLoader::refuse(const std::string& name, const std::string& path,
                          const std::string& why) {
  SCRIVEL_TRACE(0, "plugin ", path, " cannot be used: ", why);
  Vela::tellError("plugin {} cannot be used: {}", path, why);
  if (!name.empty()) add(Vela::make<Plugin>(name, path, why, context_));
}

void PluginLoader::add(const Vela::Ptr<Plugin>& plugin) {
  plugins_.push_back(plugin);
  context_.pluginDataDir->entityIs(plugin->name(), plugin);
  // So that its settings can be set.
  if (!context_.pluginConfigDir->entityHas(plugin->name())) {
    context_.pluginConfigDir->entityIs(plugin->name(), Vela::make<PluginConfig>(plugin->name()));
  }
}

void PluginLoader::tellMissing(const std::string& directory) const {
  for (const std::string& name : context_.pluginConfigDir->entityNames()) {
    const bool isPlugin = isPluginName(name);
    if (!isPlugin || context_.pluginDataDir->entityHas(name)) continue;
    Vela::tellError("plugin {} is configured, but there is no {}.so in {}", name, name, directory);
  }
}

}  // namespace P4Runtime
