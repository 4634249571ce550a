#include "platform/brine/SetAside.h"

#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "platform/brine/StoreFile.h"

namespace Brine {
namespace {

namespace fs = std::filesystem;

constexpr const char* earlierBoot = "earlier-boot";

// Every boot of a machine whose state directory is on a disk leaves a store: one of them is kept.
std::string placeFor(const std::string& base, Trouble why) {
  std::error_code ignored;
  if (why == Trouble::otherBoot) {
    fs::remove_all(base + earlierBoot, ignored);
    return base + earlierBoot;
  }
  unsigned number = 1;
  while (fs::exists(fs::symlink_status(base + "damaged-" + std::to_string(number)))) ++number;
  return base + "damaged-" + std::to_string(number);
}

// False when the files cannot go there.
bool movedTo(const std::string& aside, const std::string& directory) {
  for (const auto& path : {dataPath(directory), formerDataPath(directory)}) {
    std::error_code error;
    fs::rename(path, fs::path(aside) / fs::path(path).filename(), error);
    if (error && error != std::errc::no_such_file_or_directory) return false;
  }
  return true;
}

}  // namespace

std::string setAside(const std::string& directory, Trouble why) {
  int refusal = EACCES;
  for (const std::string& base : {directory + ".", directory + "/"}) {
    const std::string aside = placeFor(base, why);
    if (mkdir(aside.c_str(), 0700) != 0) {
      refusal = errno;
      continue;
    }
    if (movedTo(aside, directory)) {
      std::error_code ignored;
      fs::remove(formerDataPath(directory) + "-lock", ignored);
      return aside;
    }
    std::error_code ignored;
    fs::remove(aside, ignored);
  }
  failed(refusal, directory, directory);
}

}  // namespace Brine
