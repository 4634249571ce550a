// A short look before a sleep: for news of another process that is only some microseconds away.
#pragma once

#include <chrono>
#include <functional>

namespace Vela {

// Calls `seen` until it returns true, for `most` at the longest. Returns whether it did. Gives up
// early when other threads want the processor; on a machine with one processor it looks once.
bool lookFor(std::chrono::microseconds most, const std::function<bool()>& seen);

}  // namespace Vela
