// A plugin's shared library: opened and checked; a file that is no plugin is refused.
#pragma once

#include <memory>
#include <string>

#include "P4Runtime/plugin/korvel_plugin.h"
#include "platform/vela/Exception.h"

namespace P4Runtime {

// Why a file cannot be used as a plugin, and the way out; does not repeat the file's name.
class PluginError : public Vela::Exception {
 public:
  using Exception::Exception;
};

// Once opened the library stays: threads may run in it, and others may hold pointers into it.
class PluginLibrary {
 public:
  // Throws PluginError; the library is closed again then.
  explicit PluginLibrary(std::string path);

  const std::string& path() const { return path_; }
  const korvel_plugin& descriptor() const { return *descriptor_; }
  static std::string nameOf(const std::string& path);  // "table-use" of "/lib/table-use.so"

 private:
  const std::string path_;
  const korvel_plugin* descriptor_ = nullptr;
};

}  // namespace P4Runtime
