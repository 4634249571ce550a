// A folder of the test's own, in memory, removed with all that is in it.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <stdexcept>
#include <string>

namespace TestSupport {

class TempDirectory {
 public:
  TempDirectory() {
    std::string pattern = "/dev/shm/korvel-test-XXXXXX";
    if (!std::filesystem::is_directory("/dev/shm")) {
      pattern = (std::filesystem::temp_directory_path() / "korvel-test-XXXXXX").string();
    }
    if (!mkdtemp(pattern.data())) throw std::runtime_error("cannot make " + pattern);
    path_ = pattern;
  }
  ~TempDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDirectory(const TempDirectory&) = delete;
  TempDirectory& operator=(const TempDirectory&) = delete;

  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

}  // namespace TestSupport
