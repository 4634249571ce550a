#include "P4Runtime/agent/BoundedLog.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <utility>

namespace P4Runtime {

BoundedLog::BoundedLog(std::string path, size_t mostBytes)
    : path_(std::move(path)), mostBytes_(mostBytes) {
  open();
}

BoundedLog::~BoundedLog() {
  if (fd_ >= 0) close(fd_);
}

void BoundedLog::open() {
  fd_ = ::open(path_.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  struct stat status {};
  bytes_ = fd_ >= 0 && fstat(fd_, &status) == 0 ? static_cast<size_t>(status.st_size) : 0;
}

// The whole lines at the beginning of `lines` for which the file has room.
size_t BoundedLog::fitting(std::string_view lines) const {
  const size_t room = mostBytes_ > bytes_ ? mostBytes_ - bytes_ : 0;
  if (lines.size() <= room) return lines.size();
  const size_t end = room == 0 ? std::string_view::npos : lines.rfind('\n', room - 1);
  return end == std::string_view::npos ? 0 : end + 1;
}

void BoundedLog::rotate() {
  if (fd_ >= 0) {
    close(fd_);
    std::rename(path_.c_str(), (path_ + ".1").c_str());
  }
  open();
}

void BoundedLog::write(std::string_view lines) {
  while (!lines.empty()) {
    if (fd_ < 0 || (fitting(lines) == 0 && bytes_ > 0)) rotate();
    size_t size = fitting(lines);
    if (size == 0) size = std::min(lines.find('\n'), lines.size() - 1) + 1;  // longer than a file
    if (fd_ < 0 || ::write(fd_, lines.data(), size) < 0) return;
    bytes_ += size;
    lines.remove_prefix(size);
  }
}

}  // namespace P4Runtime
