// A folder of a test's own, on tmpfs as a state directory is; removed with all it holds.
#pragma once

#include <cstddef>
#include <string>

namespace TestSupport {

class TempDir {
 public:
  TempDir();  // throws std::system_error
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Memory that the files under `directory` take, in bytes: allocated blocks, not lengths, since a
// store's files are sparse.
size_t allocatedBytes(const std::string& directory);

}  // namespace TestSupport
