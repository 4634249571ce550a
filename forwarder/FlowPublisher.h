// Publishes the counts of the forwarder's flows for the agent and others to read.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "forwarder/FlowBook.h"
#include "platform/lattice/FlowCounters.h"

namespace Forwarder {

// In rounds: each takes what has changed by then, and writes it in slices that take a millisecond
// or so, one a call. What cannot be written is kept and tried again. One thread uses it.
class FlowPublisher {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::milliseconds roundInterval{400};

  // `republish` puts all counts into the book: readers have lost what was published before.
  FlowPublisher(std::string stateDirectory, std::string name, FlowBook& book,
                std::function<void()> republish)
      : stateDirectory_(std::move(stateDirectory)),
        name_(std::move(name)),
        book_(book),
        republish_(std::move(republish)) {}

  // `wanted` is whether there are flows to count at all; before, no store is made.
  void work(Clock::time_point now, bool wanted);
  std::optional<Clock::time_point> nextDue() const;        // empty: not before something is counted
  const std::string& trouble() const { return trouble_; }  // empty: none
  uint64_t published() const { return published_; }        // counts, each change of one

 private:
  bool maybeBeginRound(Clock::time_point now, bool wanted);
  bool haveWriter(Clock::time_point now);
  void doWriteSlice(Clock::time_point now);
  void handleTrouble(const std::string& what, Clock::time_point now);

  const std::string stateDirectory_;
  const std::string name_;
  FlowBook& book_;
  const std::function<void()> republish_;
  std::unique_ptr<Lattice::FlowCounterWriter> writer_;
  bool lost_ = false;                    // readers have lost what an earlier writer had published
  std::vector<FlowBook::Change> round_;  // what is left of it
  Clock::time_point nextRound_{};
  std::string trouble_;
  uint64_t published_ = 0;
};

}  // namespace Forwarder
