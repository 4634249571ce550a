#include "platform/vela/LargePages.h"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

namespace Vela {

void startWithLargePages([[maybe_unused]] char* const* arguments) {
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // they bring an allocator
  constexpr const char* variable = "GLIBC_TUNABLES";
  const std::string setting = "glibc.malloc.hugetlb";
  const char* const given = std::getenv(variable);
  const bool isGiven = given != nullptr;
  const std::string tunables = isGiven ? given : "";
  if (tunables.find(setting) != std::string::npos) return;
  std::error_code error;
  // By its name: the process would otherwise be called "exe".
  const std::string program = std::filesystem::read_symlink("/proc/self/exe", error);
  if (error) return;
  setenv(variable, ((tunables.empty() ? "" : tunables + ":") + setting + "=1").c_str(), 1);
  execv(program.c_str(), arguments);
  isGiven ? setenv(variable, tunables.c_str(), 1) : unsetenv(variable);
#endif
}

}  // namespace Vela
