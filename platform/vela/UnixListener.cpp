// A safe place for the socket, and callers also when no descriptor is left.
#include "platform/vela/UnixListener.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

namespace Vela {
namespace {

std::string directoryOf(const std::string& path) {
  const std::string parent = std::filesystem::path(path).parent_path();
  return parent.empty() ? "." : parent;
}

UniqueFd openedDirectory(const std::string& path, int flags) {
  return UniqueFd(open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC | flags));
}

bool outOfDescriptors(int error) { return error == EMFILE || error == ENFILE; }

// Errors of a caller that has gone again, or of its network; the next one may do better.
bool concernsCaller(int error) {
  return error == ECONNABORTED || error == EINTR || error == EPROTO || error == EPERM;
}

constexpr char noDescriptorLeft[] =
    "no file descriptor is left; try again later, or raise the limit (ulimit -n)";

UniqueFd spareDescriptor() { return UniqueFd(open("/dev/null", O_RDONLY | O_CLOEXEC)); }

UniqueFd acceptFrom(int listener) {
  return UniqueFd(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
}

void refuseForDescriptors(UnixListener::Caller* caller) {
  caller->refusal = noDescriptorLeft;
  caller->isOutOfDescriptors = true;
}

void checkCredentials(UnixListener::Caller& caller) {
  ucred credentials{};
  socklen_t size = sizeof credentials;
  const bool known =
      getsockopt(caller.socket.get(), SOL_SOCKET, SO_PEERCRED, &credentials, &size) == 0;
  caller.pid = credentials.pid;
  if (!known || (credentials.uid != geteuid() && credentials.uid != 0)) {
    caller.refusal = "only processes of the same user, or of root, may connect";
  }
}

}  // namespace

UnixAddress::UnixAddress(const std::string& path) {
  address_.sun_family = AF_UNIX;
  std::string shown = path;
  if (path.size() >= sizeof address_.sun_path) {
    directory_ = openedDirectory(directoryOf(path), 0);
    if (!directory_) throw std::system_error(errno, std::generic_category(), path);
    shown = "/proc/self/fd/" + std::to_string(directory_.get()) + "/" +
            std::filesystem::path(path).filename().string();
  }
  if (shown.size() >= sizeof address_.sun_path) {
    throw std::system_error(ENAMETOOLONG, std::generic_category(), path);
  }
  shown.copy(address_.sun_path, shown.size());
}

void UnixListener::fail(int error, const std::string& advice) const {
  throw std::system_error(error, std::generic_category(),
                          "cannot listen on " + options_.path + " (" + advice + ")");
}

UnixListener::UnixListener(UnixListenerOptions options)
    : options_(std::move(options)),
      name_(std::filesystem::path(options_.path).filename()),
      directory_(openedDirectory(directoryOf(options_.path), O_NOFOLLOW)),
      socket_(socket(AF_UNIX, options_.type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)),
      reserve_(spareDescriptor()) {
  if (!socket_ || !reserve_) fail(errno, "close some files");
  struct stat status {};
  if (!directory_ || fstat(directory_.get(), &status) != 0) {
    fail(errno, "its directory must be one, and no symbolic link");
  }
  const bool trusted = geteuid() == 0 || status.st_uid == geteuid() || status.st_uid == 0;
  // Where a directory is sticky, others may add files and replace none of ours.
  const bool isShared = (status.st_mode & 022) && !(status.st_mode & S_ISVTX);
  if (!trusted || isShared) {
    fail(EPERM, "other users may write to its directory: choose one of your own, or chmod go-w");
  }
  const UnixAddress address(options_.path);
  makeRoom(address);
  fchmod(socket_.get(), 0600);  // before bind: the file never has another mode
  if (bind(socket_.get(), address.get(), UnixAddress::size()) != 0 ||
      listen(socket_.get(), SOMAXCONN) != 0) {
    fail(errno, "look at its directory's permissions");
  }
  if (fstatat(directory_.get(), name_.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0 ||
      !S_ISSOCK(status.st_mode)) {
    fail(ENOENT, "its directory was replaced meanwhile");
  }
  file_ = {status.st_dev, status.st_ino};
}

// Removes a socket on which nobody listens any more, and nothing else.
void UnixListener::makeRoom(const UnixAddress& address) {
  struct stat status {};
  if (fstatat(directory_.get(), name_.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) return;
  if (!S_ISSOCK(status.st_mode)) fail(EEXIST, "what is there is no socket; remove it");
  if (geteuid() != 0 && status.st_uid != geteuid()) fail(EEXIST, "another user's socket is there");
  const UniqueFd probe(socket(AF_UNIX, options_.type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!probe) fail(errno, "close some files");
  const bool connected = connect(probe.get(), address.get(), UnixAddress::size()) == 0;
  // Another error than a refusal: a process with a full queue, or with a socket of another type.
  const bool dead = connected ? options_.alive && !options_.alive(probe.get())
                              : errno == ECONNREFUSED || errno == ENOENT;
  if (!dead) fail(EADDRINUSE, "another process does; stop it or choose another directory");
  unlinkat(directory_.get(), name_.c_str(), 0);
}

UnixListener::~UnixListener() {
  if (inPlace()) unlinkat(directory_.get(), name_.c_str(), 0);
}

bool UnixListener::inPlace() const {
  struct stat status {};
  return lstat(options_.path.c_str(), &status) == 0 &&
         FileId{status.st_dev, status.st_ino} == file_;
}

UnixListener::Turn UnixListener::accept(Caller* caller) {
  if (!reserve_) reserve_ = spareDescriptor();
  for (;;) {
    *caller = {.socket = acceptFrom(socket_.get())};
    if (caller->socket) {
      checkCredentials(*caller);
      // Serving it takes another one: it would be hung up on without a word.
      if (!spareDescriptor()) refuseForDescriptors(caller);
      return Turn::caller;
    }
    if (errno == EAGAIN) return Turn::nobody;
    if (outOfDescriptors(errno)) return acceptByReserve(caller);
    if (!concernsCaller(errno)) return Turn::noRoom;
  }
}

UnixListener::Turn UnixListener::acceptByReserve(Caller* caller) {
  if (!reserve_) return Turn::noRoom;
  reserve_ = UniqueFd();
  caller->socket = acceptFrom(socket_.get());
  if (!caller->socket) return errno == EAGAIN ? Turn::nobody : Turn::noRoom;
  refuseForDescriptors(caller);
  return Turn::caller;
}

}  // namespace Vela
