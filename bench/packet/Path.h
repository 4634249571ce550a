// A way that packets take from a sender to a receiver, and how fast it is.
#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <span>
#include <string>
#include <string_view>

#include "bench/p4runtime/Samples.h"

namespace Bench {

// On their way at once: more would overrun the kernel's queue between the ends of a link. When so
// many are, the sender waits until half of them have arrived, so that it sends in batches.
constexpr uint64_t packetWindow = 512;

struct PathFigures {
  size_t bytes = 0;
  size_t packets = 0;  // sent in all
  double perSecond = 0;
  Duration median{};  // of one packet that travels alone, from its sending to its arrival
};

// Measures throw std::runtime_error when a packet gets lost.
class Path {
 public:
  Path() = default;
  virtual ~Path() = default;
  Path(const Path&) = delete;
  Path& operator=(const Path&) = delete;

  // `packets` at full speed, then `alone` one by one.
  PathFigures measured(size_t bytes, size_t packets, size_t alone);
  void waitOpen();  // sends until the first packet arrives

 protected:
  // Sends them in order.
  virtual void send(std::span<const std::string_view> packets) = 0;
  // A packet has arrived. Called by the receiver's thread; packets of no measurement do not count.
  void arrived(std::string_view packet);

 private:
  double rate(size_t packets);
  Duration median(size_t alone);
  void begin(size_t bytes);
  bool waitArrived(uint64_t count, std::chrono::milliseconds timeout);
  void mustArrive(uint64_t count);

  std::string packet_;
  uint32_t stream_ = 0;  // tells measurements apart
  std::atomic<bool> open_{false};
  std::atomic<uint64_t> arrived_{0};  // of those being measured
  std::atomic<uint64_t> awaited_{0};  // at so many the sender is told
  std::atomic<Clock::time_point> lastArrival_{};
  std::mutex mutex_;
  std::condition_variable told_;
};

}  // namespace Bench
