// Hands the connections of a Unix socket to gRPC so that their calls know whose process called.
#pragma once

#include <grpcpp/server_builder.h>
#include <sys/types.h>

#include <array>
#include <memory>

namespace pi::server {

// A property of a connection, for Peer: "unix:1000".
constexpr const char* kUnixUserProperty = "unix_user";

// gRPC tells a call nothing of its descriptor, but which acceptor took it: each user gets one for
// as long as the server lives. Use it on one thread.
class UnixUsers {
 public:
  static constexpr size_t kMost = 32;  // different users; more are not served

  explicit UnixUsers(grpc::ServerBuilder& builder);
  // Owns the descriptor `fd`. False: it was closed, since the user is one too many or not known.
  bool take(int listenerFd, int fd);

 private:
  struct User;
  User* userOf(int fd);

  std::array<std::shared_ptr<User>, kMost> users_;
};

}  // namespace pi::server
