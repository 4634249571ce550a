#include "PI/server/UnixSocket.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>

namespace pi::server {
namespace {

[[noreturn]] void refuse(const std::string& path, const std::string& why) {
  throw std::runtime_error("cannot listen on unix:" + path + ": " + why);
}

[[noreturn]] void refuseErrno(const std::string& path, const char* wayOut) {
  refuse(path, std::generic_category().message(errno) + wayOut);
}

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.front() != '/') refuse(path, "not an absolute path; begin it with /");
  if (path.size() >= sizeof address.sun_path) {
    refuse(path, "the path has more than " + std::to_string(sizeof address.sun_path - 1) +
                     " bytes; choose a shorter one");
  }
  std::memcpy(address.sun_path, path.data(), path.size());
  return address;
}

bool somebodyListens(const sockaddr_un& address) {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  const bool connected =
      connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  const bool refused = !connected && (errno == ECONNREFUSED || errno == ENOENT);
  if (fd >= 0) ::close(fd);
  return !refused;
}

void removeStale(const std::string& path, const sockaddr_un& address) {
  struct stat status {};
  if (lstat(path.c_str(), &status) != 0) return;
  if (!S_ISSOCK(status.st_mode)) {
    refuse(path, "a file that is no socket lies there; remove it, or choose another path");
  }
  if (status.st_uid != geteuid()) {
    refuse(path, "a socket of another user lies there; remove it, or choose another path");
  }
  if (somebodyListens(address)) refuse(path, "somebody listens there; choose another path");
  if (unlink(path.c_str()) != 0) refuseErrno(path, "; let the agent's user write the folder");
}

}  // namespace

UnixSocket::UnixSocket(const UnixSocketOptions& options, int backlog) : path_(options.path) {
  try {
    open(options, backlog);
  } catch (...) {
    close();
    throw;
  }
}

void UnixSocket::open(const UnixSocketOptions& options, int backlog) {
  const sockaddr_un address = addressOf(path_);
  removeStale(path_, address);
  fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd_ < 0) refuseErrno(path_, "; raise the limit of open files");
  if (bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    refuseErrno(path_, "; choose a path in a folder that the agent's user may write");
  }
  struct stat status {};
  if (lstat(path_.c_str(), &status) == 0) inode_ = status.st_ino;
  if (chmod(path_.c_str(), options.mode) != 0) refuseErrno(path_, "; choose another unixMode");
  const bool keepsOwner =
      options.user == static_cast<uid_t>(-1) && options.group == static_cast<gid_t>(-1);
  if (!keepsOwner && chown(path_.c_str(), options.user, options.group) != 0) {
    refuseErrno(path_, "; choose another unixOwner, or run the agent as root");
  }
  if (listen(fd_, backlog) != 0) refuseErrno(path_, "; choose another path");
}

UnixSocket::~UnixSocket() { close(); }

void UnixSocket::close() {
  removeFile();
  if (fd_ >= 0) ::close(fd_);
}

// A successor may have put its own socket there.
void UnixSocket::removeFile() {
  const ino_t own = inode_.exchange(0);
  struct stat status {};
  if (own != 0 && lstat(path_.c_str(), &status) == 0 && status.st_ino == own) {
    unlink(path_.c_str());
  }
}

}  // namespace pi::server
