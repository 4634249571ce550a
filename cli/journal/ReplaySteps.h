// The calls of a journal that took effect, in their order: what another switch is to be told.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "journal/Reader.h"
#include "p4/v1/p4runtime.pb.h"

namespace Cli {

// What a journal has, as a first look at all of it tells.
struct Survey {
  uint64_t records = 0;
  Journal::Time begin;
  uint64_t last = 0;       // sequence
  bool isWhole = false;    // it begins with the first record ever
  uint64_t lost = 0;       // records that are missing in gaps, from `from` on
  bool isLacking = false;  // Writes from `from` on may be missing, since the journal was off
  // Where all entries were last cleared, by a push or a start without any: replaying begins there.
  // 0: with the first record.
  uint64_t from = 0;
  Journal::Time fromTime;
  uint64_t deviceId = 0;  // of the newest pipeline
  // The pipeline to begin with; empty when the journal has none.
  std::optional<p4::v1::ForwardingPipelineConfig> pipeline;
  // Pushes that were told UNAVAILABLE and came up all the same: where, both by sequence.
  std::map<uint64_t, uint64_t> latePushes;
  std::vector<std::string> notes;  // of the reader
};
Survey surveyOf(Journal::Reader reader);

// A call to repeat.
struct ReplayStep {
  uint64_t sequence = 0;
  Journal::Time time;
  // Either a Write, of the updates that succeeded, or a push.
  p4::v1::WriteRequest write;
  std::optional<p4::v1::SetForwardingPipelineConfigRequest> push;
};

constexpr size_t defaultOpenBytes = 256 << 20;

// Give it all records, and take the steps that are ready after each.
class ReplaySteps {
 public:
  // Records up to this sequence are passed over. `mostOpenBytes`: of requests that wait for an
  // outcome, or for a former one that does; beyond it the oldest is given up.
  explicit ReplaySteps(uint64_t from, size_t mostOpenBytes = defaultOpenBytes,
                       std::map<uint64_t, uint64_t> latePushes = {})
      : from_(from), mostOpenBytes_(mostOpenBytes), latePushes_(std::move(latePushes)) {}

  void add(const Journal::Record& record);
  void end();  // no more records come
  std::optional<ReplayStep> next();

  uint64_t failed() const { return failed_; }    // updates that had failed, and are left out
  uint64_t unknown() const { return unknown_; }  // calls without an outcome, which are left out

 private:
  struct Call {
    Journal::RecordKind kind;
    uint64_t sequence = 0;
    Journal::Time time;
    std::string request;
    bool isKnown = false;
    bool isUnknown = false;  // nothing will be known of it
    bool isLate = false;     // a push that comes up with the next pipeline of the agent
    uint32_t code = 0;
    std::vector<uint32_t> failures;  // the places of the updates that failed
  };
  void addRequest(const Journal::Record& record);
  void addOutcome(const Journal::Record& record);
  void placePush();
  std::optional<ReplayStep> stepOf(const Call& call);
  void removeFailed(const Call& call, p4::v1::WriteRequest* write);

  const uint64_t from_;
  const size_t mostOpenBytes_;
  const std::map<uint64_t, uint64_t> latePushes_;  // as in a Survey
  size_t openBytes_ = 0;
  std::deque<Call> calls_;  // in the order in which they take effect
  uint64_t failed_ = 0;
  uint64_t unknown_ = 0;
};

}  // namespace Cli
