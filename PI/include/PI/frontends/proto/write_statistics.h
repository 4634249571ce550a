// How Writes of controllers fare since the process began: the time that each stage takes, and the
// end of their updates.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>

namespace pi::fe::proto {

// Durations in buckets. Thread-safe; an observation costs two atomic additions.
class DurationHistogram {
 public:
  // Upper ends of all buckets but the last, in nanoseconds; an end belongs to its bucket.
  static constexpr std::array<uint64_t, 19> kEnds = {
      10'000,        25'000,        50'000,        100'000,       250'000,
      500'000,       1'000'000,     2'500'000,     5'000'000,     10'000'000,
      25'000'000,    50'000'000,    100'000'000,   250'000'000,   500'000'000,
      1'000'000'000, 2'500'000'000, 5'000'000'000, 10'000'000'000};

  void observe(std::chrono::nanoseconds duration);

  struct Totals {
    std::array<uint64_t, kEnds.size() + 1> counts{};  // one a bucket
    uint64_t nanoseconds = 0;
  };
  Totals totals() const;

 private:
  std::array<std::atomic<uint64_t>, kEnds.size() + 1> counts_{};
  std::atomic<uint64_t> nanoseconds_{0};
};

enum class WriteStage : uint8_t {
  parse,     // the message, from its bytes
  check,     // of each update against the P4Info
  turn,      // the wait for Writes before it
  commit,    // of a batch: rows are made, and become visible
  hardware,  // of a batch: the forwarding plane's word on all of it
  answer,    // until gRPC has it
  whole      // from the parsed message to the status
};
inline constexpr size_t kWriteStages = 7;
inline constexpr size_t kStatusCodes = 17;  // canonical codes of gRPC

// Thread-safe.
struct WriteStatistics {
  std::array<DurationHistogram, kWriteStages> stages;
  std::array<std::atomic<uint64_t>, kStatusCodes> updates{};  // by their code
  std::array<std::atomic<uint64_t>, kStatusCodes> writes{};   // by the code of their status

  DurationHistogram& stage(WriteStage one) { return stages[static_cast<size_t>(one)]; }
  void countUpdates(int code, uint64_t count);
  void countWrite(int code);
};

// Of the process; it lives as long.
WriteStatistics& writeStatistics();

// Observes the time until stop(), or its end.
class StageTimer {
 public:
  explicit StageTimer(WriteStage stage) : stage_(stage) {}
  ~StageTimer() { stop(); }
  StageTimer(const StageTimer&) = delete;
  StageTimer& operator=(const StageTimer&) = delete;

  void stop() {
    if (!runs_) return;
    runs_ = false;
    writeStatistics().stage(stage_).observe(std::chrono::steady_clock::now() - began_);
  }

 private:
  const WriteStage stage_;
  const std::chrono::steady_clock::time_point began_ = std::chrono::steady_clock::now();
  bool runs_ = true;
};

}  // namespace pi::fe::proto
