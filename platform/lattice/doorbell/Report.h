// The reports of forwarding agents on row changes, and the state of each attached agent.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>

namespace Lattice {

// A forwarding agent's word on one row change.
struct Report {
  uint64_t entryHandle = 0;
  uint64_t sequence = 0;
  uint16_t errorCode = 0;    // 0: programmed
  std::string_view message;  // one line of UTF-8
  uint64_t subscriber = 0;   // SubscriberInfo::id of the reporter; 0: all of them together
  std::string_view subscriberName;
  // Whether it decides the fate of the change: the change failed, or every agent has programmed it
  // that was attached when it was committed.
  bool settles = true;
};

// News of the data plane that nobody asked for.
struct Notice {
  enum class Kind : uint8_t { digest = 1, idleEntry };
  Kind kind = Kind::digest;
  uint32_t digestId = 0;     // of a digest, in the P4Info
  std::string_view message;  // of a digest: packed, as Subscriber::digest() says
  uint64_t entryHandle = 0;  // of an entry that no packet has met for its idle time-out
};

struct SubscriberInfo {
  uint64_t id = 0;  // of this attachment; never given out again
  std::string name;
  int64_t pid = 0;
  uint64_t sequence = 0;  // received up to here
  bool takingSnapshot = false;
  bool answersQuestions = false;
  bool tellsLastHits = false;
  bool appliesAtOnce = false;  // each commit, for all packets at the same time, or none of it
  uint64_t reports = 0;
};

// Called with the activity lock held, on the reactor or by Database::stopListening().
struct SubscriberObserver {
  // A group of reports, checked for form only.
  std::function<void(std::span<const Report>)> reports;
  // Every attached subscriber has programmed each change up to `sequence` that was committed while
  // it was attached, but for those of which a failure was reported.
  std::function<void(uint64_t sequence)> programmed;
  // Every attached subscriber has all changes up to `sequence`, even changes without a report.
  std::function<void(uint64_t sequence)> inStep;
  // The number of attached subscribers, each time that it changes.
  std::function<void(size_t)> attached;
  // One notice, checked for form only; valid during the call.
  std::function<void(const Notice&)> notice;
  // An attached subscriber has gone.
  std::function<void(const SubscriberInfo&)> left;
};

}  // namespace Lattice
