// See TempDir.h.
#include "tests/support/TempDir.h"

#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdlib>
#include <filesystem>

#include <system_error>

namespace TestSupport {

TempDir::TempDir() {
  const bool haveTmpfs = access("/dev/shm", W_OK) == 0;
  path_ = (haveTmpfs ? "/dev/shm" : std::filesystem::temp_directory_path().string()) +
          "/korvel-test-XXXXXX";
  if (!mkdtemp(path_.data())) {
    throw std::system_error(errno, std::generic_category(), "cannot make " + path_);
  }
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

size_t allocatedBytes(const std::string& directory) {
  size_t total = 0;
  std::error_code ignored;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(directory, ignored)) {
    struct stat status {};
    if (lstat(entry.path().c_str(), &status) == 0) {
      total += static_cast<size_t>(status.st_blocks) * 512;
    }
  }
  return total;
}

}  // namespace TestSupport
