// The lines of `korvel top`, made of two statuses of the agent.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

struct cJSON;

struct ScreenSize {
  size_t lines = 24;
  size_t columns = 80;
};

// Lines without ends, none longer than the screen is wide, and no more than it has lines. Rates are
// those of the time between the two statuses, which the operation "show" of the agent's
// p4runtime/status/monitoring returns. A part that is absent counts as zero, or is left out.
std::vector<std::string> topLines(const cJSON& before, const cJSON& now, const ScreenSize& size);
