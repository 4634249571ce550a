// The meter and counter columns of a row's packed value.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "platform/lattice/types/TableType.h"

namespace Lattice {

bool isCounted(const TableType& type);  // whether its rows have a counter

inline constexpr size_t counterBytes = 17;  // at the end of a value with a counter

struct MeterColumns {
  bool given = false;  // false: the entry came without a setting; the numbers are the defaults
  uint64_t cir = 0;
  uint64_t cburst = 0;
  uint64_t pir = 0;
  uint64_t pburst = 0;
};
struct CounterColumns {
  bool given = false;
  // Not 0 where given; it differs from the flag before when the same counts are given once more.
  uint8_t flag = 0;
  uint64_t bytes = 0;
  uint64_t packets = 0;
};

// Nothing when the type has no such part, or the bytes do not have the type's layout.
std::optional<MeterColumns> meterOfRow(const TableType& type, std::string_view value);
std::optional<CounterColumns> counterOfRow(const TableType& type, std::string_view value);

}  // namespace Lattice
