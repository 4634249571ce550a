#include "P4Runtime/pi/KnownPorts.h"

#include <atomic>

#include "PI/target/pi_extensions_imp.h"
#include "platform/vela/ActivityReadLock.h"

namespace P4Runtime {
namespace {

std::atomic<const KnownPorts*> thePorts{nullptr};

}  // namespace

void TheKnownPortsIs(const KnownPorts* ports) { thePorts.store(ports); }

}  // namespace P4Runtime

extern "C" int _pi_port_exists(uint32_t port) {
  const Vela::ActivityReadLock lock;
  const auto* const ports = P4Runtime::thePorts.load();
  return ports == nullptr || ports->has(port) ? 1 : 0;
}
