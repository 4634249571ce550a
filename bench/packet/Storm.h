// Writes while packets for the controller come as fast as a device carries them.
#pragma once

#include <string>

namespace Bench {

// On a switch of its own, in this process's network namespace; `effort` scales the time it takes.
// Each figure is the median of `rounds`. Throws std::runtime_error when a Write fails.
std::string measuredStorm(const std::string& pipelineFile, double effort, size_t rounds);

}  // namespace Bench
