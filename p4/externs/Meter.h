// A meter of two rates and three colours.
#pragma once

#include <cstdint>

namespace P4 {

enum class Colour : uint8_t { green, yellow, red };

// Rates in units a second, bursts in units; a unit is a packet or a byte.
struct MeterRates {
  uint64_t committedRate = 0;
  uint64_t committedBurst = 0;
  uint64_t peakRate = 0;
  uint64_t peakBurst = 0;
  bool operator==(const MeterRates&) const = default;
};

struct MeterConfig {
  MeterRates rates;
  uint64_t generation = 0;  // from 1; no two configurations share it
};

// The packet thread executes it; another configures the side that it does not read. Time is in
// microseconds. A meter that is not configured is green.
class Meter {
 public:
  // By the configuration of the side of the tables that packets read (tables/Sides.h).
  Colour execute(int side, uint64_t now, uint64_t units);
  // The buckets are full after it. Null: not configured. For a side that no packet reads; the
  // configuration is borrowed for as long as it is the side's.
  void configIs(int side, const MeterConfig* config) { wanted_[side] = config; }

 private:
  struct Bucket {
    uint64_t tokens = 0;
    uint64_t last = 0;  // all that was due by then
    void refill(uint64_t now, uint64_t rate, uint64_t burst);
  };

  const MeterConfig* wanted_[2] = {};  // by side
  uint64_t current_ = 0;               // generation

  Bucket committed_;
  Bucket peak_;
};

}  // namespace P4
