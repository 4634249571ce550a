#include "P4Runtime/packet/PacketInPace.h"

#include <algorithm>

namespace P4Runtime {

std::chrono::milliseconds PacketInPace::turnEnded(Clock::duration cost, Clock::time_point now) {
  paidUntil_ = std::max(paidUntil_, now - burst) + cost * share;
  if (!writing_ && now - lastWrite_ > recently) paidUntil_ = std::min(paidUntil_, now);
  if (paidUntil_ <= now) return {};
  return std::chrono::ceil<std::chrono::milliseconds>(paidUntil_ - now);
}

}  // namespace P4Runtime
