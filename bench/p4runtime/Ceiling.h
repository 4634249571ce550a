// The ceiling: the P4Runtime service with nothing behind it, in a process of its own. What gRPC and
// the messages cost by themselves, no agent can undercut.
#pragma once

#include <cstdint>
#include <string>

namespace Bench {

// Serves until the process is killed. A Write is answered OK; a Read of a table with one entity,
// the same each time. Arbitration is answered as to a primary. Returns the exit status.
int serveCeiling(const std::string& address);

}  // namespace Bench
