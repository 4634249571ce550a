// A wire into the switch and one out of it, and a sender that never stops.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench/forward/Load.h"
#include "forwarder/packets/PacketThread.h"
#include "tests/support/NetworkNamespace.h"

namespace Bench {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

struct Figures {
  double perSecond = 0;  // frames
  double cost = 0;       // ns of CPU time of the thread that forwards, for each frame
};

// Frames go into `in.peer()` and arrive at `out.peer()`.
struct Wires {
  TestSupport::VethPair in{"in", "in-far", 2000};
  TestSupport::VethPair out{"out", "out-far", 2000};
  uint64_t arrived() const;  // frames, as the kernel counts them
};

// Frames one after the other, as fast as the kernel takes them.
class Generator {
 public:
  Generator(const std::string& device, std::vector<std::string> frames);
  ~Generator();

 private:
  void run();

  const std::string device_;
  const std::vector<std::string> frames_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

// Writes so many entries a second until it ends, a commit each millisecond.
class Writing {
 public:
  Writing(P4::Engine& engine, uint64_t perSecond);
  ~Writing();
  bool able() const { return writer_.able(); }
  double achieved() const;  // writes a second

 private:
  void run();

  TableWriter writer_;
  const uint64_t perSecond_;
  const Clock::time_point begin_ = Clock::now();
  std::atomic<uint64_t> written_{0};
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

// Each measures for so long.
Figures engineAlone(const Load& load, const std::vector<std::string>& frames, Seconds time);
Figures throughSwitch(const Wires& wires, const Load& load, const std::vector<std::string>& frames,
                      Seconds time);
// The same sockets without an engine: whatever comes goes out.
Figures bareLoop(const Wires& wires, const std::vector<std::string>& frames, Seconds time);

}  // namespace Bench
