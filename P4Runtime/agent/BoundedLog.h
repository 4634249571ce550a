// A log file of bounded size.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace P4Runtime {

// Used by one thread at a time. A file that is full becomes NAME.1, in place of the former one.
class BoundedLog {
 public:
  // Goes on at the end of a file that is there. `mostBytes`: of each of the two files.
  BoundedLog(std::string path, size_t mostBytes);
  ~BoundedLog();
  BoundedLog(const BoundedLog&) = delete;
  BoundedLog& operator=(const BoundedLog&) = delete;

  // A line, or several, each with its end. They are in the file when this returns; without room in
  // the file system they are lost.
  void write(std::string_view lines);

 private:
  void open();
  void rotate();
  size_t fitting(std::string_view lines) const;

  const std::string path_;
  const size_t mostBytes_;
  int fd_ = -1;
  size_t bytes_ = 0;
};

}  // namespace P4Runtime
