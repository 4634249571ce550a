// Listening Unix sockets of this user's own, for streams or packets.
#pragma once

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <functional>
#include <string>
#include <utility>

#include "platform/vela/Descriptors.h"

namespace Vela {

// A socket's address holds about a hundred bytes of path; a longer path goes through the
// descriptor of its directory, so that the file's name alone has to be short.
class UnixAddress {
 public:
  explicit UnixAddress(const std::string& path);  // throws std::system_error
  const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&address_); }
  static socklen_t size() { return sizeof(sockaddr_un); }

 private:
  sockaddr_un address_{};
  UniqueFd directory_;
};

struct UnixListenerOptions {
  std::string path;
  int type = SOCK_STREAM;  // or SOCK_SEQPACKET
  // Whether `connection`, to the present listener at the path, proves a living process there.
  // Unless given, being connected does.
  std::function<bool(int connection)> alive;
};

// One thread at a time uses it. Never blocks, but for options.alive.
class UnixListener {
 public:
  // Makes the socket, with mode 0600, in a directory that no other user may write to; follows no
  // symbolic link in the last two parts of the path. A socket of this user's is replaced when
  // nobody listens on it. Throws std::system_error: EADDRINUSE when somebody does, EEXIST when
  // something else is there, EPERM for an unsafe directory, ENOENT without one.
  explicit UnixListener(UnixListenerOptions options);
  ~UnixListener();  // removes the socket if it is still there
  UnixListener(const UnixListener&) = delete;
  UnixListener& operator=(const UnixListener&) = delete;

  const std::string& path() const { return options_.path; }
  int descriptor() const { return socket_.get(); }
  bool inPlace() const;  // false once the path leads elsewhere: its directory may be made again

  // A process that connected. With a refusal: say it, and hang up before the next call.
  struct Caller {
    UniqueFd socket;  // non-blocking
    pid_t pid = 0;
    std::string refusal;  // empty: welcome. Other users but root are refused; with no descriptor
                          // left everybody is
    bool isOutOfDescriptors = false;  // the reason for the refusal
  };
  // noRoom: a caller waits for a descriptor, and the socket remains readable; rest before the next
  // call.
  enum class Turn { caller, nobody, noRoom };
  Turn accept(Caller* caller);

 private:
  using FileId = std::pair<dev_t, ino_t>;
  Turn acceptByReserve(Caller* caller);
  void makeRoom(const UnixAddress& address);
  [[noreturn]] void fail(int error, const std::string& advice) const;

  const UnixListenerOptions options_;
  const std::string name_;  // in the directory
  UniqueFd directory_;
  UniqueFd socket_;
  UniqueFd reserve_;  // given up to refuse a caller when no other descriptor is left
  FileId file_{};
};

}  // namespace Vela
