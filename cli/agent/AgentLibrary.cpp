#include "cli/agent/AgentLibrary.h"

#include <dlfcn.h>
#include <fmt/format.h>

#include <filesystem>
#include <system_error>

namespace {

// In ../lib of a build; an installed command finds its libraries by name.
std::string libraryPath(const std::string& given) {
  if (!given.empty()) return given;
  std::error_code error;
  const auto self = std::filesystem::read_symlink("/proc/self/exe", error);
  const auto beside = self.parent_path().parent_path() / "lib" / "libP4Runtime.so";
  return !error && std::filesystem::exists(beside) ? beside.string() : "libP4Runtime.so";
}

}  // namespace

AgentLibrary loadAgentLibrary(const std::string& given) {
  const std::string path = libraryPath(given);
  void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_GLOBAL);
  if (!handle) {
    throw LibraryError(fmt::format("cannot load the agent: {}; name it with --library", dlerror()));
  }
  AgentLibrary library;
  library.registerTypes =
      reinterpret_cast<decltype(library.registerTypes)>(dlsym(handle, "korvelAgentRegisterTypes"));
  library.start = reinterpret_cast<decltype(library.start)>(dlsym(handle, "korvelAgentStart"));
  if (!library.registerTypes || !library.start) {
    throw LibraryError(fmt::format("{} is no agent library: {}", path, dlerror()));
  }
  library.contradictions = reinterpret_cast<decltype(library.contradictions)>(
      dlsym(handle, "korvelAgentContradictions"));
  return library;
}
