// Changes that a subscriber has passed on and not reported on yet, in the order of their numbers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>

namespace Lattice {

class OpenChanges {
 public:
  void add(uint64_t sequence) { open_.push_back({sequence, false}); }
  bool empty() const { return open_.empty(); }
  void clear();
  // A report has come. The word on all changes up to a number covers one in order, not one behind
  // another that is open, which may never be reported on. Others are unknown.
  enum class Settled { inOrder, behind, unknown };
  Settled settle(uint64_t sequence);
  // All changes up to this one are reported on, when `passedOn` is the last one that was passed on.
  uint64_t settledUpTo(uint64_t passedOn) const;

 private:
  // Those reported on out of order stay until the ones before them are through.
  struct Open {
    uint64_t sequence;
    bool done;
  };
  void forgetDoneBehind();

  std::deque<Open> open_;
  size_t doneBehind_ = 0;  // how many of them are done
};

}  // namespace Lattice
