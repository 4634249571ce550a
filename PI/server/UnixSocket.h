// A Unix socket that listens under a path of the file system.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <string>

namespace pi::server {

struct UnixSocketOptions {
  std::string path;
  uint32_t mode = 0600;
  uid_t user = static_cast<uid_t>(-1);  // -1: the process's
  gid_t group = static_cast<gid_t>(-1);
};

// Owns descriptor and file, and removes both.
class UnixSocket {
 public:
  // Nobody connects before the file has its mode and owner. Replaces a file only if it is a socket
  // of this user on which nobody listens. Throws std::runtime_error with a line for the user that
  // names the path and a way out.
  UnixSocket(const UnixSocketOptions& options, int backlog);
  ~UnixSocket();
  UnixSocket(const UnixSocket&) = delete;
  UnixSocket& operator=(const UnixSocket&) = delete;

  int fd() const { return fd_; }
  // Before its time; nobody connects from then on. Any thread.
  void removeFile();

 private:
  void open(const UnixSocketOptions& options, int backlog);
  void close();

  const std::string path_;
  int fd_ = -1;
  std::atomic<ino_t> inode_{0};  // of the file; 0: no file
};

}  // namespace pi::server
