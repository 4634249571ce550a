// The figures as one table, beside our aims.
#pragma once

#include <string>

#include "bench/p4runtime/Measure.h"
#include "bench/p4runtime/ProfileMeasure.h"
#include "bench/p4runtime/ReaderMeasure.h"
#include "bench/p4runtime/WriteMeasure.h"

namespace Bench {

std::string report(const WriteResults& writes);
std::string report(const Results& results);
// Of the same run: entries that name groups are compared with the largest table of others.
std::string report(const ProfileResults& profiles, const Results& results);
std::string report(const ReaderResults& readers);

// Parts of these.
std::string aimLine(const std::string& what, double value, bool reached, const std::string& wanted);
std::string milliseconds(Duration duration);
std::string mebibytes(size_t bytes);

}  // namespace Bench
