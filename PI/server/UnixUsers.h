// Hands the connections of a Unix socket to gRPC so that their calls know whose process called.
#pragma once

#include <grpcpp/server_builder.h>
#include <sys/types.h>

#include <array>
#include <chrono>
#include <functional>
#include <memory>

namespace pi::server {

// A property of a connection, for Peer: "unix:1000".
constexpr const char* kUnixUserProperty = "unix_user";

// gRPC tells a call nothing of its descriptor, but which acceptor took it: each user has one. When
// all have a user, a new user gets that of the user who connected longest ago, of those without
// connections. Use it on one thread.
class UnixUsers {
 public:
  using Time = std::chrono::steady_clock::time_point;
  using Clock = std::function<Time()>;

  static constexpr size_t kMost = 32;  // users with connections at a time; more are not served
  // An acceptor whose connections are closed stays its user's for so long: a call that came on one
  // of them may still be about to learn whose it is.
  static constexpr std::chrono::seconds kRest{10};

  explicit UnixUsers(grpc::ServerBuilder& builder, Clock now = std::chrono::steady_clock::now);
  ~UnixUsers();
  // Owns the descriptor `fd`. False: it was closed, since the user is one too many or not known.
  bool take(int listenerFd, int fd);

 private:
  struct User;
  class Connections;
  struct Slot;

  Slot* slotOf(int fd);
  Slot* slotOfUid(int64_t uid);
  void noteAll();
  Slot* reusable();

  const Clock now_;
  const std::unique_ptr<std::array<Slot, kMost>> slots_;
};

}  // namespace pi::server
