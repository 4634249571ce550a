// Publishes the counts of the forwarder's flows for the agent and others to read.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "forwarder/counters/FlowBook.h"
#include "platform/lattice/counters/FlowCounters.h"

namespace Forwarder {

// Works in rounds. A round takes the changes of the book and writes them in slices of a millisecond
// or so, one slice a call.
// Threads: one at a time. Errors: a change that cannot be written goes back into the book and is
// tried again; trouble() says why.
class FlowPublisher {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::milliseconds roundInterval{400};

  // `republish` puts all counts into the book; called when readers have lost the earlier ones.
  FlowPublisher(std::string stateDirectory, std::string name, FlowBook& book,
                std::function<void()> republish)
      : stateDirectory_(std::move(stateDirectory)),
        name_(std::move(name)),
        book_(book),
        republish_(std::move(republish)) {}

  // Makes no store before `wanted`, that is, before some table has a counter.
  void work(Clock::time_point now, bool wanted);
  // Writes all changes, unless there is trouble: a controller may read counts that it has set.
  void publishAll(Clock::time_point now);
  std::optional<Clock::time_point> nextDue() const;        // nothing: there is no change to write
  const std::string& trouble() const { return trouble_; }  // empty when all is well
  uint64_t publishedCount() const { return publishedCount_; }  // changes of counts

 private:
  bool maybeBeginRound(Clock::time_point now, bool wanted);
  bool ensureWriter(Clock::time_point now);
  void doWriteSlice(Clock::time_point now);
  void handleTrouble(const std::string& what, Clock::time_point now);

  const std::string stateDirectory_;
  const std::string name_;
  FlowBook& book_;
  const std::function<void()> republish_;
  std::unique_ptr<Lattice::FlowCounterWriter> writer_;
  bool lost_ = false;                    // readers have lost the counts of an earlier writer
  std::vector<FlowBook::Change> round_;  // the changes not written yet
  Clock::time_point nextRound_{};
  std::string trouble_;
  uint64_t publishedCount_ = 0;
};

}  // namespace Forwarder
