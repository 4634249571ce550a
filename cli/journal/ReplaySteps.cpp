#include "cli/journal/ReplaySteps.h"

#include <algorithm>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "cli/journal/InstalledPush.h"
#include "cli/journal/Requests.h"

namespace Cli {

using Journal::Record;
using Journal::RecordKind;
using Push = p4::v1::SetForwardingPipelineConfigRequest;

namespace {

// More than a server takes at once: the first of so many will have no outcome any more.
constexpr size_t mostOpenCalls = 10'000;
// The agent answers a push so when its pipeline may still come up.
constexpr uint32_t unavailable = 14;

// Follows which pipeline runs.
class PipelineSurvey {
 public:
  explicit PipelineSurvey(Survey& survey) : survey_(survey) {}

  void add(const Record& record) {
    if (record.kind == RecordKind::start) return handleStart(record);
    if (record.kind == RecordKind::pipeline) return handleOwn(record);
    if (record.kind == RecordKind::push) {
      if (const auto request = Journal::requestOf(record)) {
        open_[record.sequence] = {
            .place = record.sequence, .time = record.time, .bytes = std::string(request->bytes)};
        pushesHaveBegun_ = true;
      }
      return;
    }
    const auto outcome = Journal::outcomeOf(record);
    if (!outcome) return;
    const auto open = open_.find(outcome->request);
    if (open == open_.end()) return;
    if (outcome->code == unavailable && !open->second.isLate) return handleLate(open->first);
    if (outcome->code == 0) handleDone(open->second);
    open_.erase(open);
  }

 private:
  struct Open {
    uint64_t place;  // sequence at which it took effect
    Journal::Time time;
    std::string bytes;
    std::string installed;  // the agent's own request after it; empty: none yet
    bool isLate = false;    // its outcome was that the pipeline may still come up
  };

  void handleStart(const Record& record) {
    open_.clear();
    const auto start = Journal::startOf(record);
    if (!start) return;
    if (start->isFromEmpty) {
      handleCleared(record.sequence, record.time);
      survey_.pipeline.reset();
      saved_.reset();
      pushesHaveBegun_ = false;
    }
    survey_.isLacking |= start->isLacking;
  }

  void handleCleared(uint64_t sequence, Journal::Time time) {
    survey_.from = sequence;
    survey_.fromTime = time;
    survey_.lost = 0;
    survey_.isLacking = false;
  }

  // The agent installs a controller's push in a form of its own. Before the first push, the newest
  // configured pipeline counts.
  void handleOwn(const Record& record) {
    Push own;
    const auto request = Journal::requestOf(record);
    if (!request || !parse(request->bytes, &own)) return;
    survey_.deviceId = own.device_id();
    for (auto& [sequence, open] : open_) {
      open.place = record.sequence;
      open.installed = request->bytes;
    }
    if (!survey_.pipeline || !pushesHaveBegun_) {
      survey_.pipeline = std::move(*own.mutable_config());
    }
    // The late ones have come up now, or another pipeline took their place.
    std::vector<uint64_t> late;
    for (const auto& [number, open] : open_) {
      if (open.isLate) late.push_back(number);
    }
    for (const uint64_t number : late) settle(number);
  }

  void handleLate(uint64_t sequence) {
    Open& open = open_.at(sequence);
    open.isLate = true;
    if (!open.installed.empty()) settle(sequence);
  }

  void settle(uint64_t sequence) {
    const Open open = std::move(open_.at(sequence));
    open_.erase(sequence);
    Push push;
    if (!parse(open.bytes, &push) || !changesPipeline(push.action())) return;
    const bool isCommit = push.action() == Push::COMMIT;
    if (isCommit && !saved_) return;
    if (!installs(open.installed, isCommit ? *saved_ : push.config())) return;
    survey_.latePushes[sequence] = open.place;
    handleDone(open);
  }

  void handleDone(const Open& open) {
    Push push;
    if (!parse(open.bytes, &push)) return;
    if (push.action() == Push::VERIFY_AND_SAVE) saved_ = push.config();
    const bool isCommit = push.action() == Push::COMMIT;
    if (push.action() != Push::VERIFY_AND_COMMIT && !isCommit) return;
    handleCleared(open.place, open.time);
    survey_.pipeline = isCommit ? saved_ : push.config();
  }

  Survey& survey_;
  std::map<uint64_t, Open> open_;  // pushes without an outcome so far
  bool pushesHaveBegun_ = false;
  std::optional<p4::v1::ForwardingPipelineConfig> saved_;
};

}  // namespace

Survey surveyOf(Journal::Reader reader) {
  Survey survey;
  PipelineSurvey pipelines(survey);
  while (const auto record = reader.next()) {
    if (survey.records++ == 0) {
      survey.begin = record->time;
      survey.isWhole = record->sequence == 1;
    }
    survey.last = record->sequence;
    if (const auto gap = Journal::gapOf(*record)) survey.lost += gap->lost;
    pipelines.add(*record);
  }
  survey.notes = reader.notes();
  return survey;
}

void ReplaySteps::add(const Record& record) {
  switch (record.kind) {
    case RecordKind::start:
      return end();
    case RecordKind::write:
    case RecordKind::push:
      return addRequest(record);
    case RecordKind::pipeline:
      return placePush();
    case RecordKind::outcome:
      return addOutcome(record);
    case RecordKind::gap:
      return;
  }
}

void ReplaySteps::addRequest(const Record& record) {
  const auto request = Journal::requestOf(record);
  if (!request || record.sequence <= from_) return;
  calls_.push_back({.kind = record.kind,
                    .sequence = record.sequence,
                    .time = record.time,
                    .request = std::string(request->bytes)});
  openBytes_ += request->bytes.size();
  Call& oldest = calls_.front();
  const bool isTooMuch = calls_.size() > mostOpenCalls || openBytes_ > mostOpenBytes_;
  if (isTooMuch && calls_.size() > 1) oldest.isUnknown = !oldest.isKnown;
}

// The agent installs the pipeline of a push only now: Writes that came in the meantime took effect
// before it.
void ReplaySteps::placePush() {
  const auto isOpenPush = [](const Call& call) {
    return call.kind == RecordKind::push && !call.isKnown && !call.isUnknown;
  };
  const auto pushes = std::stable_partition(calls_.begin(), calls_.end(), std::not_fn(isOpenPush));
  for (auto call = pushes; call != calls_.end(); ++call) {
    if (call->isLate) call->isKnown = true;
  }
}

void ReplaySteps::end() {
  for (Call& call : calls_) call.isUnknown = !call.isKnown;
}

void ReplaySteps::addOutcome(const Record& record) {
  const auto outcome = Journal::outcomeOf(record);
  if (!outcome) return;
  // The newest ones are looked at first: few are open at a time.
  const auto call = std::find_if(calls_.rbegin(), calls_.rend(),
                                 [&](const Call& one) { return one.sequence == outcome->request; });
  if (call == calls_.rend()) return;
  const auto late = latePushes_.find(call->sequence);
  call->code = late == latePushes_.end() ? outcome->code : 0;
  // One that comes up later keeps its place open until then.
  call->isLate = late != latePushes_.end() && late->second > record.sequence;
  call->isKnown = !call->isLate;
  for (const Journal::Failure& failure : outcome->failures) call->failures.push_back(failure.index);
}

std::optional<ReplayStep> ReplaySteps::next() {
  while (!calls_.empty() && (calls_.front().isKnown || calls_.front().isUnknown)) {
    Call call = std::move(calls_.front());
    calls_.pop_front();
    openBytes_ -= call.request.size();
    if (call.isUnknown) {
      ++unknown_;
      continue;
    }
    if (auto step = stepOf(call)) return step;
  }
  return std::nullopt;
}

// Empty when nothing of the call took effect.
std::optional<ReplayStep> ReplaySteps::stepOf(const Call& call) {
  ReplayStep step{.sequence = call.sequence, .time = call.time};
  if (call.kind == RecordKind::push) {
    Push push;
    if (call.code != 0 || !parse(call.request, &push) || !changesPipeline(push.action())) return {};
    step.push = std::move(push);
    return step;
  }
  if (!parse(call.request, &step.write)) {
    ++unknown_;
    return {};
  }
  removeFailed(call, &step.write);
  return step.write.updates().empty() ? std::nullopt : std::optional(std::move(step));
}

void ReplaySteps::removeFailed(const Call& call, p4::v1::WriteRequest* write) {
  if (call.code == 0) return;
  auto& updates = *write->mutable_updates();
  if (call.failures.empty()) {
    failed_ += static_cast<uint64_t>(updates.size());
    return updates.Clear();
  }
  failed_ += call.failures.size();
  auto failure = call.failures.begin();
  int kept = 0;
  for (int i = 0; i < updates.size(); ++i) {
    if (failure != call.failures.end() && *failure == static_cast<uint32_t>(i)) {
      ++failure;
    } else {
      updates.SwapElements(kept++, i);
    }
  }
  updates.DeleteSubrange(kept, updates.size() - kept);
}

}  // namespace Cli
