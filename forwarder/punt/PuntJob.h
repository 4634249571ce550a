// A request for made packets, on its way through the punting thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "forwarder/base/Answer.h"
#include "forwarder/punt/PuntOptions.h"
#include "forwarder/punt/PuntSender.h"

namespace Forwarder {

// Threads: one at a time, the punting thread.
class PuntJob {
 public:
  using Clock = std::chrono::steady_clock;
  explicit PuntJob(PuntRequest request) : request_(std::move(request)) {}

  // Makes the packets that are due, a few at a time. Returns the answer to the request once all are
  // made, or the agent and its device have not been ready for two seconds.
  std::optional<Answer> advance(PuntSender& sender);
  // When the next packet is due; nothing while the job waits for the agent and its device.
  std::optional<Clock::time_point> nextDue() const;

 private:
  bool maybeBegin(const PuntSender& sender);
  uint64_t due() const;  // packets
  void makePackets(size_t count, PuntSender& sender);
  Frame makeFrame(uint64_t number, uint8_t* place) const;
  Answer result() const;

  const PuntRequest request_;
  Clock::time_point since_ = Clock::now();  // the request; once begun, its first packet
  bool begun_ = false;
  uint64_t made_ = 0;
  uint64_t punted_ = 0;
  std::string trouble_;  // of the last packet that was dropped
};

}  // namespace Forwarder
