// What several subscribers at once say of a change, made one answer.
#pragma once

#include <cstdint>
#include <deque>
#include <span>
#include <string_view>
#include <vector>

#include "platform/lattice/Database.h"
#include "platform/lattice/records/Journal.h"

namespace Lattice {

// A set of subscribers, a bit each.
using Subscribers = uint64_t;

// Knows the changes that were committed while several subscribers were attached and that not all of
// them have reported on. Everything else passes as it comes.
class ReportBook {
 public:
  // `owed` by each subscriber in `subscribers`, at least two.
  void committed(std::span<const Committed> changes, Subscribers subscribers);
  bool empty() const { return open_.empty(); }

  // Whether the report of `subscriber` settles the change: a failure does, or the last success when
  // none failed.
  bool settles(Subscribers subscriber, const Report& report);
  // The subscriber owes no report any more, of changes up to `sequence`; answers those that
  // everybody else has reported on, as successes.
  std::vector<Report> released(Subscribers subscriber, uint64_t sequence);
  // It went away: a change that nobody is left to report on stays unsettled.
  std::vector<Report> left(Subscribers subscriber);

 private:
  struct Open {
    uint64_t sequence;
    uint64_t entryHandle;
    Subscribers owed;
    Subscribers reported;
    bool failed;  // for one of them: settled, yet the others' word is still to come
  };
  std::vector<Report> dropped(Subscribers subscriber, uint64_t sequence, bool counts);
  void popSettled();
  std::deque<Open> open_;  // ascending sequence
};

}  // namespace Lattice
