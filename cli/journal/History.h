// The history of entities: the updates of them that a journal has.
#pragma once

#include <google/protobuf/arena.h>

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "cli/journal/EntityPattern.h"
#include "journal/Record.h"

namespace p4::v1 {
class WriteRequest;
}  // namespace p4::v1
namespace Pipeline {
class P4InfoLookup;
}

namespace Cli {

// An update of an entry, or something that may have changed all entries.
struct HistoryEvent {
  enum class Kind { update, push, gap, start };
  Kind kind = Kind::update;
  uint64_t sequence = 0;
  Journal::Time time;
  std::string identity, address;  // of the caller
  std::string role;               // "" the default one
  std::string electionId;         // "" none
  std::string what;               // "INSERT", "VERIFY_AND_COMMIT", the reason of a gap
  size_t number = 0;              // of the update in its Write, from 1
  size_t updates = 0;             // of the Write
  std::string atomicity;          // "" unless it stands or falls as a whole
  std::string key, action;
  uint64_t lost = 0;                   // records, of a gap
  std::optional<Journal::Time> ended;  // empty: no outcome is known
  uint32_t code = 0;
  std::string message;
};

// Give it all records of a journal, in their order.
class History {
 public:
  // Keeps the newest `most` events. The references outlive the object.
  History(const EntityPattern& pattern, const Pipeline::P4InfoLookup& index, size_t most)
      : pattern_(pattern), index_(index), most_(most) {}

  void add(const Journal::Record& record);
  void end();  // no more records come

  const std::deque<HistoryEvent>& events() const { return events_; }  // oldest first
  uint64_t updates() const { return updates_; }              // of such entries, all there were
  uint64_t left() const { return added_ - events_.size(); }  // older events that were let go
  // When the journal begins; empty without a record.
  const std::optional<Journal::Time>& begin() const { return begin_; }
  bool isWhole() const { return isWhole_; }  // it begins with the first record ever

 private:
  void addWrite(const Journal::Record& record);
  void addPush(const Journal::Record& record);
  void placePush(uint64_t sequence, HistoryEvent event);
  void placePushes(Journal::Time time);
  void addStart(const Journal::Record& record);
  void addGap(const Journal::Record& record);
  void addOutcome(const Journal::Record& record);
  HistoryEvent& add(HistoryEvent::Kind kind, const Journal::Record& record);
  HistoryEvent& add(HistoryEvent event);
  HistoryEvent* event(uint64_t number);

  const EntityPattern& pattern_;
  const Pipeline::P4InfoLookup& index_;
  const size_t most_;
  std::deque<HistoryEvent> events_;
  std::map<uint64_t, std::vector<uint64_t>> open_;  // numbers of events, by their request
  std::map<uint64_t, HistoryEvent> pushes_;         // that have not taken effect yet
  uint64_t added_ = 0;
  uint64_t updates_ = 0;
  std::optional<Journal::Time> begin_;
  bool isWhole_ = false;
};

// For people, several lines; and as JSON in one line.
std::string eventText(const HistoryEvent& event);
std::string eventJson(const HistoryEvent& event);

}  // namespace Cli
