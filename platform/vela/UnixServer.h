// Serves a bounded number of clients on a Unix socket, from the reactor. Silent clients are hung up
// on.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "platform/vela/ReactorLoop.h"
#include "platform/vela/UnixListener.h"

namespace Vela {

struct UnixServerOptions {
  UnixListenerOptions listener;
  size_t mostClients = 64;
  // A client without a request by then is hung up on.
  std::chrono::milliseconds silence = std::chrono::seconds(10);
  // Puts the reason for a refusal into the clients' language.
  std::function<std::string(std::string_view reason)> refusal;
};

// A client's place among the most that there may be; free again when this dies.
class UnixSeat {
 public:
  ~UnixSeat();
  UnixSeat(const UnixSeat&) = delete;
  UnixSeat& operator=(const UnixSeat&) = delete;
  void endSilence();  // the client has made a request, and may be silent from now on

 private:
  friend class UnixServer;
  struct Seats;
  UnixSeat(std::shared_ptr<Seats> seats, int socket);
  const std::shared_ptr<Seats> seats_;
  const uint64_t number_;
};

struct UnixClient {
  UniqueFd socket;  // non-blocking
  pid_t pid = 0;
  std::unique_ptr<UnixSeat> seat;
};

// Call with the activity lock held. When all places are taken, the client that has been silent
// longest makes room for a new one; when none is silent, the new one is refused. While the process
// has no descriptor left, clients are refused at once. Hanging up is a shutdown() of the client's
// socket: its owner reads the end, and closes it.
class UnixServer {
 public:
  // `connected` runs on the reactor; an exception of its own costs that client alone. Throws
  // std::system_error as UnixListener does.
  UnixServer(ReactorLoop& loop, UnixServerOptions options,
             std::function<void(UnixClient)> connected);
  ~UnixServer();
  UnixServer(const UnixServer&) = delete;
  UnixServer& operator=(const UnixServer&) = delete;

  const std::string& path() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace Vela
