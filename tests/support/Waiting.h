// Waits until another process or thread has done its work, no longer than a deadline.
#pragma once

#include <chrono>
#include <functional>

namespace TestSupport {

// Long enough for a loaded machine and a sanitizer; only a test that fails waits this long.
constexpr std::chrono::seconds patience{60};

// Asks `condition` again and again until it holds: true. False after `timeout`, or as soon as
// `processDescriptor` (a pidfd; -1: none) tells that the process it depends on has ended.
bool waitUntil(const std::function<bool()>& condition, int processDescriptor = -1,
               std::chrono::milliseconds timeout = patience);

}  // namespace TestSupport
