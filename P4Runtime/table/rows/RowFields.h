// The field pointers of the row being built, and the values behind them.
#pragma once

#include <array>
#include <cstdint>
#include <span>

#include "P4Runtime/pipeline/P4CounterMeters.h"
#include "platform/lattice/types/RowConstructor.h"

namespace P4Runtime {

struct RowFields {
  static constexpr size_t bytes = 1024;
  // Every field takes at least a byte of key or action; the rest leaves room for meters and such.
  static constexpr size_t mostFields = 2 * bytes + 64;

  std::array<const uint8_t*, mostFields> pointers;
  uint32_t count = 0;
  // Conversion changes both in place.
  std::array<uint8_t, bytes> keyBytes;
  std::array<uint8_t, bytes + 8> actionBytes;  // a field of width 0 counts a byte that is not there
  uint32_t priority = 0;
  uint32_t actionId = 0;
  uint32_t indirectId = 0;
  uint8_t isGroup = 0;
  uint32_t id = 0;                // of a member or group
  Lattice::ArrayField memberIds;  // of a group
  // Of a table with a direct meter or counter: whether one was given, and the values of the row.
  uint8_t meterGiven = 0;
  uint8_t counterGiven = 0;
  Vela::Ptr<P4MeterConfig> meter;
  Vela::Ptr<P4CounterData> counter;

  template <typename T>
  void append(const T* field) {
    pointers[count++] = reinterpret_cast<const uint8_t*>(field);
  }
  std::span<const uint8_t* const> all() const { return {pointers.data(), count}; }
};

}  // namespace P4Runtime
