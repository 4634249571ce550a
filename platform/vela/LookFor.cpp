#include "platform/vela/LookFor.h"

#include <sched.h>

#include <atomic>

namespace Vela {
namespace {

bool haveSeveralProcessors() {
  static const bool several = [] {
    cpu_set_t set;
    return sched_getaffinity(0, sizeof set, &set) != 0 || CPU_COUNT(&set) > 1;
  }();
  return several;
}

// A hyper-thread beside this one gets the processor meanwhile.
void pause() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#else
  std::atomic_signal_fence(std::memory_order_seq_cst);
#endif
}

}  // namespace

bool lookFor(std::chrono::microseconds most, const std::function<bool()>& seen) {
  using Clock = std::chrono::steady_clock;
  constexpr int looksInARow = 64;
  // Looks in a row, and a call of the system, take a tenth of it: others had the processor.
  constexpr std::chrono::microseconds othersRan{30};
  if (seen()) return true;
  if (!haveSeveralProcessors()) return false;
  auto now = Clock::now();
  const auto end = now + most;
  for (auto before = now; now < end && now - before < othersRan; now = Clock::now()) {
    before = now;
    for (int i = 0; i < looksInARow; ++i) {
      pause();
      if (seen()) return true;
    }
    sched_yield();
  }
  return seen();
}

}  // namespace Vela
