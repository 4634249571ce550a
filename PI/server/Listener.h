// Accepts the server's TCP connections and hands them over. gRPC's own listener is deaf for good
// once accepting has failed for want of descriptors, and takes connections without bound.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "PI/server/ConnectionPace.h"

namespace pi::server {

// Thread-safe.
class Listener {
 public:
  // Listens on every address that "host:port" means (host in brackets if it is IPv6, port 0 for
  // any), and on the socket `unixSocket` unless it is -1, which outlives the object; the address
  // may be empty then. Throws std::runtime_error with a line for the user that names the address
  // and a way out.
  explicit Listener(const std::string& address, int unixSocket = -1);
  ~Listener();  // stops
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  static constexpr ConnectionPace::Rate kPaceOfMachine{.atOnce = 1024, .perSecond = 100};
  static constexpr ConnectionPace::Rate kPaceOfAll{.atOnce = 4096, .perSecond = 400};

  int port() const { return port_; }  // 0 without an address
  // Owns the descriptor `fd` from then on, and closes it when the connection ends.
  using Handler = std::function<void(int listenerFd, int fd)>;
  // Accepts on a thread of its own. A connection beyond the limit is closed at once, and so is one
  // of another machine that has three quarters of all that there may be, and one that comes too
  // soon after too many others (kPaceOfMachine, kPaceOfAll; on the Unix socket there is no pace).
  // Where descriptors are used up, one that is kept in reserve serves to accept and close
  // connections, until there are some again.
  void start(Handler handler);
  void stop();  // no call of the handler is running when it returns

  uint64_t refused() const { return refused_.load(); }

 private:
  using Machine = ConnectionPace::Machine;  // zeros for this one
  // A descriptor that was handed over, and the inode by which to tell whether it is still open.
  struct Connection {
    int fd;
    uint64_t inode;
    Machine machine;
  };

  void run();
  bool waitForConnections();
  void acceptFrom(int socket);
  void take(int listenerFd, int fd);
  void refuse(int fd);
  void refuseWithReserve(int socket);
  bool hasRoom();
  bool hasShare(const Machine& machine);
  bool isInPace(int listenerFd, const Machine& machine);
  void forgetEnded();
  void close();

  std::vector<int> sockets_;  // its own
  std::vector<int> polled_;   // these and the Unix socket
  int port_ = 0;
  int wakeFd_ = -1;
  int reserveFd_ = -1;
  Handler handler_;
  ConnectionPace pace_{kPaceOfMachine, kPaceOfAll};
  std::vector<Connection> connections_;  // the thread's own; some have ended
  std::atomic<uint64_t> refused_{0};
  std::thread thread_;
};

}  // namespace pi::server
