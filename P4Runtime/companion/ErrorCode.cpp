#include "P4Runtime/companion/ErrorCode.h"

#include <array>

#include "platform/scrivel/Trace.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("ErrorCode");

constexpr int unknownCode = 2;
constexpr std::array<int, 16> canonicalCodes = {0, 8, 13, 13, 13, 14, 12, 12,
                                                3, 3, 13, 3,  6,  8,  3,  unknownCode};

}  // namespace

int canonicalCode(uint32_t errorCode) {
  if (errorCode < canonicalCodes.size()) return canonicalCodes[errorCode];
  SCRIVEL_TRACE(0, "canonicalCode", " error code out of range: ", errorCode);
  return unknownCode;
}

}  // namespace P4Runtime
