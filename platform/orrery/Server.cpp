#include "platform/orrery/Server.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

#include "platform/orrery/Requests.h"
#include "platform/scrivel/Trace.h"

static Scrivel::TraceHandle trace("OrreryServer");

namespace Orrery {
namespace {

[[noreturn]] void fail(int error, const std::string& what) {
  throw std::system_error(error, std::generic_category(), what);
}

sockaddr_un socketAddress(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    fail(ENAMETOOLONG, "cannot serve the state database on " + path +
                           ": choose a state directory with a shorter name");
  }
  std::memcpy(address.sun_path, path.data(), path.size());
  return address;
}

bool someoneListens(const sockaddr_un& address) {
  const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (probe < 0) return false;
  const int result = connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  const bool listens = result == 0 || errno == EAGAIN;
  close(probe);
  return listens;
}

int listeningSocket(const std::string& path) {
  const sockaddr_un address = socketAddress(path);
  const std::string what = "cannot serve the state database on " + path;
  if (someoneListens(address)) {
    fail(EADDRINUSE, what + ": another agent does; stop it or choose another state directory");
  }
  struct stat status {};
  if (lstat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode)) unlink(path.c_str());
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) fail(errno, what);
  fchmod(fd, 0600);  // before bind: the file never has another mode
  if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      listen(fd, 16) != 0) {
    const int error = errno;
    close(fd);
    fail(error, what);
  }
  return fd;
}

}  // namespace

Server::Server(Vela::ReactorLoop& loop, Database& database, std::string socketPath)
    : loop_(loop),
      database_(database),
      socketPath_(std::move(socketPath)),
      socket_(listeningSocket(socketPath_)),
      descriptor_(Vela::make<Vela::FileDescriptor>(loop, "orrery.sock")),
      alive_(std::make_shared<Server*>(this)) {
  descriptor_->descriptorIs(socket_);
  descriptor_->onReadableIs([this] { handleConnection(); });
}

Server::~Server() {
  *alive_ = nullptr;
  descriptor_->descriptorIs(-1);
  close(socket_);
  unlink(socketPath_.c_str());
  for (ServerConnection* connection : connections_) {
    connection->close();
    connection->release();
  }
}

void Server::handleConnection() {
  const int fd = accept4(socket_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (fd < 0) {
    // Without a descriptor to spare the socket stays readable: rest until a connection goes.
    if (errno == EMFILE || errno == ENFILE) descriptor_->onReadableIs({});
    return;
  }
  if (connections_.size() >= maxConnections) {
    const std::string line = jsonLine(*errorAnswer("too many clients; try again later")) + "\n";
    send(fd, line.data(), line.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    close(fd);
    return;
  }
  auto* connection =
      new ServerConnection(loop_, database_, fd, [alive = alive_](ServerConnection* gone) {
        if (!*alive) return;
        Server& server = **alive;
        if (server.connections_.erase(gone) > 0) gone->release();
        server.listenAgain();
      });
  connection->retain();
  connections_.insert(connection);
  SCRIVEL_TRACE(2, "client came, now ", connections_.size());
}

void Server::listenAgain() {
  descriptor_->onReadableIs([this] { handleConnection(); });
}

}  // namespace Orrery
