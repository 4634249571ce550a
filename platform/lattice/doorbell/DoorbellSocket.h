// Unix packet sockets of any path length, non-blocking and owned.
#pragma once

#include <string>
#include <string_view>
#include <utility>

#include "platform/vela/Descriptors.h"

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
  // With a descriptor, the other end gets a copy of it.
  Sent send(std::string_view message, int descriptor = -1) const;
  enum class Received { message, nothing, gone, oversized };
  // `message` views `buffer`; a packet that does not fit it is oversized. A descriptor that came
  // along is put into `descriptor`; without that it is dropped.
  Received receive(std::string& buffer, std::string_view* message,
                   Vela::UniqueFd* descriptor = nullptr) const;

 private:
  int descriptor_ = -1;
};

// A connection; without one, `error` is the errno.
Socket connectedTo(const std::string& path, int* error);

}  // namespace Lattice
