// The figures as one table, beside our aims.
#pragma once

#include <string>

#include "bench/p4runtime/Measure.h"
#include "bench/p4runtime/ProfileMeasure.h"
#include "bench/p4runtime/ReaderMeasure.h"

namespace Bench {

std::string report(const Results& results);
// Of the same run: entries that name groups are compared with the largest table of others.
std::string report(const ProfileResults& profiles, const Results& results);
std::string report(const ReaderResults& readers);

}  // namespace Bench
