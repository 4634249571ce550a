// How many packets may be on their way at once; the sender waits until one has arrived.
#pragma once

#include <semaphore>

#include "tests/support/Waiting.h"

namespace TestSupport {

// Thread-safe.
class Window {
 public:
  explicit Window(ptrdiff_t most) : free_(most) {}
  bool take() { return free_.try_acquire_for(patience); }  // false: none arrives any more
  bool maybeTake() { return free_.try_acquire(); }
  void give() { free_.release(); }

 private:
  std::counting_semaphore<> free_;
};

}  // namespace TestSupport
