// Names of status codes and of the stages of a Write, as labels have them.
#pragma once

#include <iterator>

#include "PI/frontends/proto/write_statistics.h"

namespace P4Runtime {

inline constexpr const char* statusCodeNames[] = {
    "OK",        "CANCELLED",      "UNKNOWN",           "INVALID_ARGUMENT",   "DEADLINE_EXCEEDED",
    "NOT_FOUND", "ALREADY_EXISTS", "PERMISSION_DENIED", "RESOURCE_EXHAUSTED", "FAILED_PRECONDITION",
    "ABORTED",   "OUT_OF_RANGE",   "UNIMPLEMENTED",     "INTERNAL",           "UNAVAILABLE",
    "DATA_LOSS", "UNAUTHENTICATED"};
static_assert(std::size(statusCodeNames) == pi::fe::proto::kStatusCodes);

inline constexpr const char* writeStageNames[] = {"parse",    "check",  "turn", "commit",
                                                  "hardware", "answer", "whole"};
static_assert(std::size(writeStageNames) == pi::fe::proto::kWriteStages);

}  // namespace P4Runtime
