#include "PI/server/UnixUsers.h"

#include <grpc/grpc_security.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <string>

#include "PI/server/tls/AuthProperties.h"
#include "PI/server/tls/CoreCredentials.h"

namespace pi::server {

struct UnixUsers::User {
  static constexpr int64_t kNobody = -1;

  std::atomic<int64_t> uid{kNobody};
  std::mutex mutex;  // a connection's first calls may come together, and one adds the property
  std::unique_ptr<grpc::experimental::ExternalConnectionAcceptor> acceptor;
};

UnixUsers::UnixUsers(grpc::ServerBuilder& builder) {
  using External = grpc::ServerBuilder::experimental_type::ExternalConnectionType;
  for (auto& user : users_) {
    user = std::make_shared<User>();
    const auto noteUser = [user = std::weak_ptr(user)](grpc_auth_context& context) -> std::string {
      const auto known = user.lock();
      if (!known) return "the server is being shut down";
      const std::lock_guard lock(known->mutex);
      if (propertyOf(&context, kUnixUserProperty).empty()) {
        grpc_auth_context_add_cstring_property(
            &context, kUnixUserProperty, ("unix:" + std::to_string(known->uid.load())).c_str());
      }
      return "";
    };
    user->acceptor = builder.experimental().AddExternalConnectionAcceptor(
        External::FROM_FD, coreCredentials(grpc_insecure_server_credentials_create(), noteUser));
  }
}

UnixUsers::User* UnixUsers::userOf(int fd) {
  ucred peer{};
  socklen_t size = sizeof peer;
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return nullptr;
  for (const auto& user : users_) {
    if (user->uid == User::kNobody) user->uid = peer.uid;
    if (user->uid == peer.uid) return user.get();
  }
  return nullptr;
}

bool UnixUsers::take(int listenerFd, int fd) {
  User* const user = userOf(fd);
  if (!user) {
    close(fd);
    return false;
  }
  grpc::experimental::ExternalConnectionAcceptor::NewConnectionParameters connection;
  connection.listener_fd = listenerFd;
  connection.fd = fd;
  user->acceptor->HandleNewConnection(&connection);
  return true;
}

}  // namespace pi::server
