// A meter of two rates and three colours.
#pragma once

#include <atomic>
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

// The packet thread executes it; another may configure it. Time is in microseconds. A meter that is
// not configured is green.
class Meter {
 public:
  Colour execute(uint64_t now, uint64_t units);
  // The buckets are full after it. Null: not configured. The configuration is borrowed for as long
  // as a packet may be under way that saw it.
  void configIs(const MeterConfig* config) { wanted_.store(config, std::memory_order_release); }
  const MeterConfig* config() const { return wanted_.load(std::memory_order_acquire); }

 private:
  struct Bucket {
    uint64_t tokens = 0;
    uint64_t last = 0;  // all that was due by then
    void refill(uint64_t now, uint64_t rate, uint64_t burst);
  };

  std::atomic<const MeterConfig*> wanted_ = nullptr;
  uint64_t current_ = 0;  // generation

  Bucket committed_;
  Bucket peak_;
};

}  // namespace P4
