// The ways of traced packets: kept for people who ask for them now, or have asked for those to
// come.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace Forwarder {

// The packets that a trace is made of.
struct TraceRequest {
  uint64_t packets = 1;
  std::optional<uint32_t> port;            // nothing: of any port
  std::chrono::milliseconds limit{10000};  // then the answer comes with fewer packets
};

// Threads: any for the first part, the packet thread for the second.
class TraceBook {
 public:
  using Clock = std::chrono::steady_clock;
  using LaterText = std::function<std::optional<std::string>()>;
  static constexpr uint64_t maxPackets = 1000;  // of one request

  // Keeps the newest hundred packets until take().
  void onIs(bool on, std::optional<uint32_t> port);
  bool on() const;
  std::string take();
  // A text once the request is fulfilled; destroying it ends the request. Throws CommandError when
  // too many are under way.
  LaterText request(const TraceRequest& request);

  // Whether somebody waits for packets at all; then wants() tells of which port.
  bool active() const { return active_.load(std::memory_order_relaxed); }
  bool wants(uint32_t port) const;
  // Both return whether a request has been fulfilled.
  bool add(uint32_t port, const std::string& text);
  bool finishLate();

 private:
  struct Waiting {
    TraceRequest request;
    Clock::time_point end;
    uint64_t packets = 0;
    std::string text;
    bool done = false;
  };
  using Requests = std::list<std::shared_ptr<Waiting>>;

  static constexpr size_t mostKept = 100;
  static constexpr size_t mostRequests = 16;
  static constexpr size_t mostText = 4 << 20;  // bytes

  void noteActive();
  bool removeDone();

  mutable std::mutex mutex_;  // guards all but active_
  std::atomic<bool> active_{false};
  bool on_ = false;
  std::optional<uint32_t> port_;
  std::deque<std::string> kept_;
  size_t keptBytes_ = 0;
  Requests requests_;
};

}  // namespace Forwarder
