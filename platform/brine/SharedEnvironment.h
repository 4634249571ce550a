// LMDB must not open one file twice in a process: the second one's close would end the first one's
// locks. So all users of a file in this process share one environment.
#pragma once

#include <memory>

#include "platform/brine/Environment.h"
#include "platform/brine/StateDirectory.h"

namespace Brine {

// Opens the store's file, or joins its other users in this process, and checks its head; a writer's
// file without one becomes an empty store. Throws StoreError; a file that is no sound environment
// is not touched.
std::shared_ptr<Environment> sharedEnvironment(const StoreOptions& options, Purpose purpose);

}  // namespace Brine
