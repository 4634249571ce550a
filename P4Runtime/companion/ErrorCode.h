// The error codes of the write path, in reports of forwarding agents and in failures of updates,
// and the gRPC canonical code of each.
#pragma once

#include <cstdint>

namespace P4Runtime {

// Stored and sent as numbers: a number never gets a second meaning.
enum class ErrorCode : uint32_t {
  none = 0,
  outOfResources = 1,      // resource exhausted
  internalError = 2,       // internal
  hardwareError = 3,       // internal
  inconsistentState = 4,   // internal
  notReady = 5,            // unavailable
  unsupportedFeature = 6,  // unimplemented
  cannotProgram = 7,       // unimplemented
  invalidKey = 8,          // invalid argument
  invalidAction = 9,       // invalid argument
  unverified = 10,         // internal
  invalidReference = 11,   // invalid argument
  alreadyExists = 12,      // already exists
  tableFull = 13,          // resource exhausted
  invalidArgument = 14,    // invalid argument
  unknown = 15,            // unknown
};

// The gRPC canonical code of an error code; 2 (unknown) for a number outside the table, traced.
int canonicalCode(uint32_t errorCode);
inline int canonicalCode(ErrorCode errorCode) {
  return canonicalCode(static_cast<uint32_t>(errorCode));
}

}  // namespace P4Runtime
