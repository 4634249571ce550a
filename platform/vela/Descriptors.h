// The file descriptors that the process may open, and one kept for bad times.
#pragma once

#include <cstddef>
#include <string>
#include <utility>

namespace Vela {

// Raises the process's limit to the highest that it may set itself. Returns the limit that holds.
size_t raiseDescriptorLimit();

// Opens `count` descriptors and closes them again. Throws Exception, with the limit and a way out,
// when there is no room for them. Call it before libraries start that end the process for want of
// one: the user then reads a clear message.
void requireDescriptors(size_t count);

// Owns a descriptor, or none (-1).
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int descriptor) : descriptor_(descriptor) {}
  UniqueFd(UniqueFd&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    std::swap(descriptor_, other.descriptor_);
    return *this;
  }
  ~UniqueFd();
  int get() const { return descriptor_; }
  explicit operator bool() const { return descriptor_ >= 0; }
  [[nodiscard]] int release() { return std::exchange(descriptor_, -1); }  // the caller owns it now

 private:
  int descriptor_ = -1;
};

// An eventfd that select() can wait for: below FD_SETSIZE, as a larger number would write beyond
// the set. Descriptors get the lowest free number, so make it before many are open. Throws
// std::system_error, naming `purpose`, when no such descriptor is left.
UniqueFd selectableEvent(const std::string& purpose);

}  // namespace Vela
