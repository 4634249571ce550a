// Through which the PI library asks whether a port exists; the agent knows.
#pragma once

#include <cstdint>

namespace P4Runtime {

// Call with the activity lock held, to read or to write.
class KnownPorts {
 public:
  virtual ~KnownPorts() = default;
  // Whether controllers may have packets sent there.
  virtual bool has(uint32_t port) const = 0;
};

// The process's; null, and any port exists, until the agent has set it.
void TheKnownPortsIs(const KnownPorts* ports);

}  // namespace P4Runtime
