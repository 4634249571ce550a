#include "platform/vela/Scheduling.h"

#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace Vela {
namespace {

// As the system call has it; the C library has no name for it.
struct Attributes {
  uint32_t size;
  uint32_t policy;
  uint64_t flags;
  int32_t nice;
  uint32_t priority;
  uint64_t runtime;  // nanoseconds: the turn, with the usual policy
  uint64_t deadline;
  uint64_t period;
};

}  // namespace

uint32_t currentProcessor() { return static_cast<uint32_t>(sched_getcpu() + 1); }

void leaveProcessor() {
  cpu_set_t all;
  const int here = sched_getcpu();
  if (here < 0 || sched_getaffinity(0, sizeof all, &all) != 0 || CPU_COUNT(&all) < 2) return;
  cpu_set_t others = all;
  CPU_CLR(here, &others);
  if (sched_setaffinity(0, sizeof others, &others) == 0) sched_setaffinity(0, sizeof all, &all);
}

void runInTurnsOf(std::chrono::microseconds turn) {
  Attributes attributes{};
  const bool isKnown = syscall(SYS_sched_getattr, 0, &attributes, sizeof attributes, 0) == 0;
  if (!isKnown || attributes.policy != SCHED_OTHER) return;
  attributes.runtime = std::chrono::nanoseconds(turn).count();
  syscall(SYS_sched_setattr, 0, &attributes, 0);
}

}  // namespace Vela
