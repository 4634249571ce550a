#include "cli/journal/History.h"

#include <fmt/format.h>
#include <string.h>

#include <algorithm>
#include <chrono>
#include <utility>

#include "cli/journal/EntryText.h"
#include "cli/journal/Requests.h"
#include "cli/journal/Words.h"
#include "p4/config/v1/p4info.pb.h"
#include "p4/v1/p4runtime.pb.h"
#include "pipeline/P4InfoLookup.h"
#include "platform/vela/Json.h"

namespace Cli {

using Journal::Record;
using Journal::RecordKind;
using Kind = HistoryEvent::Kind;

namespace {

std::string whatOf(const p4::v1::Update& update) {
  const char* part = update.entity().has_direct_counter_entry() ? " counter"
                     : update.entity().has_direct_meter_entry() ? " meter"
                                                                : "";
  return p4::v1::Update::Type_Name(update.type()) + part;
}

std::string gapText(Journal::GapReason reason) {
  switch (reason) {
    case Journal::GapReason::queueFull:
      return "they came faster than they could be written";
    case Journal::GapReason::noRoom:
      return "the files could not be written";
    case Journal::GapReason::tooLarge:
      return "they were too large";
  }
  return "for a reason that this program does not know";
}

std::string durationText(const HistoryEvent& event) {
  using std::chrono::microseconds;
  const auto took = std::chrono::duration_cast<microseconds>(*event.ended - event.time);
  return fmt::format("{} us", took.count());
}

std::string callerText(const HistoryEvent& event) {
  return fmt::format("{} {}, role {}{}{}", event.identity.empty() ? "anybody" : event.identity,
                     event.address, event.role.empty() ? "default" : event.role,
                     event.electionId.empty() ? "" : ", election id ", event.electionId);
}

std::string outcomeText(const HistoryEvent& event) {
  if (!event.ended) return "no outcome is known: the agent was killed, or is at it still";
  if (event.code == 0) return "OK, " + durationText(event);
  return fmt::format("{}, {}{}{}", codeText(event.code), durationText(event),
                     event.message.empty() ? "" : ": ", event.message);
}

}  // namespace

void History::add(const Record& record) {
  if (!begin_) {
    begin_ = record.time;
    isWhole_ = record.sequence == 1;
  }
  switch (record.kind) {
    case RecordKind::start:
      end();
      open_.clear();
      return addStart(record);
    case RecordKind::write:
      return addWrite(record);
    case RecordKind::push:
      return addPush(record);
    case RecordKind::pipeline:
      return placePushes(record.time);
    case RecordKind::outcome:
      return addOutcome(record);
    case RecordKind::gap:
      return addGap(record);
  }
}

namespace {

HistoryEvent eventOf(Kind kind, const Record& record) {
  HistoryEvent event;
  event.kind = kind;
  event.sequence = record.sequence;
  event.time = record.time;
  if (const auto request = Journal::requestOf(record)) {
    event.identity = plainText(request->identity);
    event.address = plainText(request->address);
  }
  return event;
}

}  // namespace

void History::end() {
  for (auto& [sequence, event] : pushes_) placePush(sequence, std::move(event));
  pushes_.clear();
}

HistoryEvent& History::add(HistoryEvent event) {
  if (events_.size() == most_) events_.pop_front();
  ++added_;
  return events_.emplace_back(std::move(event));
}

HistoryEvent& History::add(Kind kind, const Record& record) {
  if (record.isRequest()) open_[record.sequence].push_back(added_);
  return add(eventOf(kind, record));
}

HistoryEvent* History::event(uint64_t number) {
  const uint64_t first = added_ - events_.size();
  return number < first ? nullptr : &events_[number - first];
}

// Most Writes lack the bytes, and are not parsed.
void History::addWrite(const Record& record) {
  const auto request = Journal::requestOf(record);
  if (!request) return;
  const std::string& needle = pattern_.needle();
  if (memmem(request->bytes.data(), request->bytes.size(), needle.data(), needle.size()) == nullptr)
    return;
  google::protobuf::Arena arena;
  auto& write = *google::protobuf::Arena::CreateMessage<p4::v1::WriteRequest>(&arena);
  if (!parse(request->bytes, &write)) return;
  for (int i = 0; i < write.updates_size(); ++i) {
    const p4::v1::Update& update = write.updates(i);
    if (!pattern_.matches(update.entity())) continue;
    ++updates_;
    HistoryEvent& event = add(Kind::update, record);
    event.role = plainText(roleOf(write));
    event.electionId = electionIdText(write);
    event.what = whatOf(update);
    event.number = static_cast<size_t>(i) + 1;
    event.updates = static_cast<size_t>(write.updates_size());
    if (write.atomicity() != p4::v1::WriteRequest::CONTINUE_ON_ERROR) {
      event.atomicity = p4::v1::WriteRequest::Atomicity_Name(write.atomicity());
    }
    event.key = keyText(index_, update.entity());
    if (update.type() != p4::v1::Update::DELETE) {
      event.action = contentText(index_, update.entity());
    }
  }
}

void History::addPush(const Record& record) {
  const auto request = Journal::requestOf(record);
  p4::v1::SetForwardingPipelineConfigRequest push;
  if (!request || !parse(request->bytes, &push) || !changesPipeline(push.action())) return;
  HistoryEvent event = eventOf(Kind::push, record);
  event.role = plainText(roleOf(push));
  event.electionId = electionIdText(push);
  event.what = p4::v1::SetForwardingPipelineConfigRequest::Action_Name(push.action());
  pushes_[record.sequence] = std::move(event);
}

void History::placePush(uint64_t sequence, HistoryEvent event) {
  open_[sequence].push_back(added_);
  add(std::move(event));
}

// The agent installs the pipeline only now: Writes that came in the meantime took effect before it.
void History::placePushes(Journal::Time time) {
  for (auto& [sequence, event] : pushes_) event.time = time;
  end();
}

// Before the first one of all there is nothing to tell apart.
void History::addStart(const Record& record) {
  const auto start = Journal::startOf(record);
  if (!start) return;
  const bool isFirst = record.sequence == 1;
  if (start->isFromEmpty && !isFirst) add(Kind::start, record).what = "the switch began empty";
  if (start->isLacking)
    add(Kind::start, record).what = "WRITES BEFORE MAY BE MISSING: the journal was off";
}

void History::addGap(const Record& record) {
  const auto gap = Journal::gapOf(record);
  if (!gap) return;
  HistoryEvent& event = add(Kind::gap, record);
  event.lost = gap->lost;
  event.what = gapText(gap->reason);
}

void History::addOutcome(const Record& record) {
  const auto outcome = Journal::outcomeOf(record);
  if (!outcome) return;
  if (auto push = pushes_.extract(outcome->request)) {
    placePush(outcome->request, std::move(push.mapped()));
  }
  const auto open = open_.find(outcome->request);
  if (open == open_.end()) return;
  for (const uint64_t number : open->second) {
    HistoryEvent* const told = event(number);
    if (told == nullptr) continue;
    told->ended = record.time;
    if (told->kind == Kind::update) {
      const UpdateOutcome own = outcomeOfUpdate(*outcome, told->number - 1);
      told->code = own.code;
      told->message = plainText(own.message);
    } else {
      told->code = outcome->code;
      told->message = plainText(outcome->message);
    }
  }
  open_.erase(open);
}

std::string eventText(const HistoryEvent& event) {
  const std::string time = timeText(event.time);
  switch (event.kind) {
    case Kind::gap:
      return fmt::format("{}  {} RECORDS ARE MISSING: {}\n", time, event.lost, event.what);
    case Kind::start:
      return fmt::format("{}  {}\n", time, event.what);
    case Kind::push:
      return fmt::format("{}  pipeline pushed, {}\n    by {}\n    {}\n", time, event.what,
                         callerText(event), outcomeText(event));
    case Kind::update:
      break;
  }
  return fmt::format("{}  {}  {}{}{}\n    by {}, update {} of {}{}{}\n    {}\n", time, event.what,
                     event.key, event.action.empty() ? "" : " -> ", event.action, callerText(event),
                     event.number, event.updates, event.atomicity.empty() ? "" : ", ",
                     event.atomicity, outcomeText(event));
}

std::string eventJson(const HistoryEvent& event) {
  const Vela::Json json(cJSON_CreateObject());
  const auto text = [&](const char* name, const std::string& value) {
    if (!value.empty()) Vela::addString(json.get(), name, value);
  };
  const auto number = [&](const char* name, uint64_t value) {
    if (value != 0) Vela::addNumber(json.get(), name, static_cast<double>(value));
  };
  static constexpr const char* kinds[] = {"update", "push", "gap", "start"};
  text("kind", kinds[static_cast<size_t>(event.kind)]);
  text("time", timeText(event.time));
  number("sequence", event.sequence);
  text("what", event.what);
  number("lost", event.lost);
  if (event.kind == Kind::update || event.kind == Kind::push) {
    Vela::addString(json.get(), "identity", event.identity);
    text("address", event.address);
    Vela::addString(json.get(), "role", event.role);
    text("electionId", event.electionId);
    text("key", event.key);
    text("action", event.action);
    number("update", event.number);
    number("updates", event.updates);
    text("atomicity", event.atomicity);
    text("code", event.ended ? codeText(event.code) : "");
    text("message", event.message);
    if (event.ended) text("ended", timeText(*event.ended));
  }
  return Vela::jsonLine(*json);
}

}  // namespace Cli
