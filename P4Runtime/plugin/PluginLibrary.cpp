#include "P4Runtime/plugin/PluginLibrary.h"

#include <dlfcn.h>
#include <elf.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <utility>

namespace P4Runtime {
namespace {

constexpr const char* descriptorSymbol = "korvel_plugin_descriptor";

struct CloseLibrary {
  void operator()(void* library) const { dlclose(library); }
};
using Library = std::unique_ptr<void, CloseLibrary>;

// Opening a pipe would block until a writer opens it.
uint64_t sizeOfFile(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) throw PluginError(strerror(errno));
  if (!S_ISREG(status.st_mode)) throw PluginError("it is no file");
  return static_cast<uint64_t>(status.st_size);
}

template <typename T>
bool readAt(std::ifstream& file, uint64_t position, T* value) {
  file.seekg(static_cast<std::streamoff>(position));
  return static_cast<bool>(file.read(reinterpret_cast<char*>(value), sizeof *value));
}

// The loader of the C library maps a file that was cut short as if all of it were there, and the
// process dies where it is not.
void requireWhole(const std::string& path) {
  const uint64_t size = sizeOfFile(path);
  std::ifstream file(path, std::ios::binary);
  if (!file) throw PluginError(strerror(errno));
  Elf64_Ehdr header{};
  if (!readAt(file, 0, &header) || std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0) {
    throw PluginError("it is no shared library");
  }
  if (header.e_ident[EI_CLASS] != ELFCLASS64) return;  // the loader refuses it
  for (unsigned i = 0; i < header.e_phnum; ++i) {
    Elf64_Phdr segment{};
    const uint64_t position = header.e_phoff + uint64_t{i} * header.e_phentsize;
    const bool isThere = position < size && readAt(file, position, &segment);
    if (!isThere || segment.p_offset > size || segment.p_filesz > size - segment.p_offset) {
      throw PluginError("it has been cut short; install it again");
    }
  }
}

const char* orNone(const char* text) { return text && *text ? text : "none"; }

void requireUsable(const korvel_plugin& descriptor, const std::string& name) {
  if (descriptor.interface_version != KORVEL_PLUGIN_INTERFACE_VERSION) {
    throw PluginError(fmt::format(
        "it was built for version {} of the plugin interface, and this agent has version {}; build "
        "it anew",
        descriptor.interface_version, KORVEL_PLUGIN_INTERFACE_VERSION));
  }
  if (!descriptor.name || descriptor.name != name) {
    throw PluginError(fmt::format("it says that its name is {}; name file and plugin alike",
                                  orNone(descriptor.name)));
  }
  if (!descriptor.start) throw PluginError("its descriptor has no function start");
}

}  // namespace

std::string PluginLibrary::nameOf(const std::string& path) {
  return std::filesystem::path(path).stem().string();
}

PluginLibrary::PluginLibrary(std::string path) : path_(std::move(path)) {
  requireWhole(path_);
  Library library(dlopen(path_.c_str(), RTLD_NOW | RTLD_LOCAL));
  if (!library) throw PluginError(dlerror());
  descriptor_ = static_cast<const korvel_plugin*>(dlsym(library.get(), descriptorSymbol));
  if (!descriptor_) {
    throw PluginError(fmt::format("it has no {}; it is no plugin of this agent", descriptorSymbol));
  }
  requireUsable(*descriptor_, nameOf(path_));
  [[maybe_unused]] void* kept = library.release();
}

}  // namespace P4Runtime
