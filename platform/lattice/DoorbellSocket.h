// Unix packet sockets of any path length, non-blocking and owned.
#pragma once

#include <string>
#include <string_view>
#include <utility>

namespace Lattice {

class Socket {
 public:
  Socket() = default;
  explicit Socket(int descriptor) : descriptor_(descriptor) {}
  Socket(Socket&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
  Socket& operator=(Socket&& other) noexcept {
    std::swap(descriptor_, other.descriptor_);
    return *this;
  }
  ~Socket();
  int descriptor() const { return descriptor_; }
  explicit operator bool() const { return descriptor_ >= 0; }

  enum class Sent { all, wouldBlock, gone };
  Sent send(std::string_view message) const;
  enum class Received { message, nothing, gone, oversized };
  // `message` views `buffer`; a packet that does not fit it is oversized.
  Received receive(std::string& buffer, std::string_view* message) const;

 private:
  int descriptor_ = -1;
};

// Listens at `path`, which only its owner may connect to; a socket that nobody listens on any more
// is replaced. Throws std::system_error.
Socket listeningAt(const std::string& path);
// Not a socket when there is nobody; then `error` is the errno.
Socket connectedTo(const std::string& path, int* error);
// Whether the other side runs as this user or as root; tells its process id.
bool peerMayAttach(int descriptor, int* pid);

}  // namespace Lattice
