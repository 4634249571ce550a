// The commands that change the agent's state, as requests name them.
#pragma once

#include "P4Runtime/agent/CliSm.h"
#include "platform/orrery/Database.h"

namespace P4Runtime {

// They work on the state database in the operator's stead, so that mounts do not bind them. It
// outlives them.
CliCommands cliCommands(Orrery::Database& database);

}  // namespace P4Runtime
