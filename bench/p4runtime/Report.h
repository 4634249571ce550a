// The figures as one table, and how they stand to what we aim at.
#pragma once

#include <string>

#include "bench/p4runtime/Measure.h"

namespace Bench {

std::string report(const Results& results);

}  // namespace Bench
