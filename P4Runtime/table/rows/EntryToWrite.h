// The parts of an entry or member, as the PI library gives them: bytes in PI encoding, valid for
// the call.
#pragma once

#include <cstdint>
#include <string_view>

#include "P4Runtime/pipeline/P4CounterMeters.h"

namespace P4Runtime {

// Names an entry.
struct MatchKey {
  uint32_t tableId = 0;
  uint32_t priority = 0;  // as the controller gave it
  std::string_view bytes;
};

struct ActionData {
  uint32_t actionId = 0;
  std::string_view bytes;
};

// Where an indirect entry points.
struct MemberOrGroup {
  uint64_t handle = 0;
  bool isGroup = false;
};

// Null: the entry came without one.
struct DirectResources {
  Vela::Ptr<P4MeterConfig> meter;
  Vela::Ptr<P4CounterData> counter;
};

}  // namespace P4Runtime
