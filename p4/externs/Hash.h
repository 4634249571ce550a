// The hash and checksum algorithms of calculations.
#pragma once

#include <absl/container/flat_hash_map.h>

#include <cstdint>
#include <span>
#include <string>

#include "p4/program/Program.h"

namespace P4 {

// Those that depend on the bytes alone.
uint64_t hashBytes(Algorithm algorithm, std::span<const uint8_t> bytes);

// A calculation's memory between packets: what the round-robin algorithms count.
class HashState {
 public:
  uint64_t hash(Algorithm algorithm, std::span<const uint8_t> bytes);

 private:
  static constexpr size_t maxRemembered = 1 << 20;
  uint64_t consistent(std::span<const uint8_t> bytes);

  uint64_t calls_ = 0;
  absl::flat_hash_map<std::string, uint64_t> firstSeen_;
};

}  // namespace P4
