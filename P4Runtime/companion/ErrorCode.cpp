#include "P4Runtime/companion/ErrorCode.h"

#include <array>

#include "platform/scrivel/Trace.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("ErrorCode");

// gRPC's numbers.
enum CanonicalCode : int {
  ok = 0,
  unknown = 2,
  invalidArgument = 3,
  alreadyExists = 6,
  resourceExhausted = 8,
  unimplemented = 12,
  internal = 13,
  unavailable = 14,
};

// By error code.
constexpr std::array<CanonicalCode, 16> canonicalCodes = {
    ok,          resourceExhausted, internal,      internal,          internal,
    unavailable, unimplemented,     unimplemented, invalidArgument,   invalidArgument,
    internal,    invalidArgument,   alreadyExists, resourceExhausted, invalidArgument,
    unknown};

}  // namespace

int canonicalCode(uint32_t errorCode) {
  if (errorCode < canonicalCodes.size()) return canonicalCodes[errorCode];
  SCRIVEL_TRACE(0, "canonicalCode", " error code out of range: ", errorCode);
  return unknown;
}

}  // namespace P4Runtime
