#include "PI/server/Limits.h"

#include <mutex>

#include "PI/server/Arbitration.h"

namespace pi::server {
namespace {

struct Guarded {
  std::mutex mutex;  // guards limits
  Limits limits;
};

Guarded& guarded() {
  static Guarded* const one = new Guarded;  // threads may outlive static destruction
  return *one;
}

}  // namespace

Limits limits() {
  const std::lock_guard lock(guarded().mutex);
  return guarded().limits;
}

void limitsAre(const Limits& limits) {
  {
    const std::lock_guard lock(guarded().mutex);
    guarded().limits = limits;
  }
  TheArbitration().limitsAre(
      {.clientsOfRole = limits.streamsOfRole, .clients = limits.streams, .roles = limits.roles});
}

}  // namespace pi::server
