// Settles changes on which several subscribers report.
#pragma once

#include <cstdint>
#include <deque>
#include <span>
#include <string_view>
#include <vector>

#include "platform/lattice/doorbell/Report.h"

namespace Lattice {

struct CommittedChange {
  uint64_t sequence = 0;
  uint64_t entryHandle = 0;
};

// A set of subscribers, a bit each.
using Subscribers = uint64_t;

// Holds the changes that were committed while several subscribers were attached, until all of these
// have reported. Reports on other changes settle at once. Call with the activity lock held.
class ReportBook {
 public:
  // Each of `subscribers`, at least two, owes a report on each change.
  void expect(std::span<const CommittedChange> changes, Subscribers subscribers);
  bool empty() const { return open_.empty(); }

  // Whether the report of `subscriber` settles the change: a failure does, or the last success when
  // none failed.
  bool settles(Subscribers subscriber, const Report& report);
  // The subscriber owes no more reports on changes up to `sequence`. Returns, as successes, the
  // changes on which all others have reported.
  std::vector<Report> release(Subscribers subscriber, uint64_t sequence);
  // The subscriber has gone. A change stays unsettled when none of its reporters is left.
  std::vector<Report> remove(Subscribers subscriber);

 private:
  struct Open {
    uint64_t sequence;
    uint64_t entryHandle;
    Subscribers owed;
    Subscribers reported;
    bool failed;  // for one of them: settled, yet the others' word is still to come
  };
  std::vector<Report> drop(Subscribers subscriber, uint64_t sequence, bool counts);
  void popSettled();
  std::deque<Open> open_;  // ascending sequence
};

}  // namespace Lattice
