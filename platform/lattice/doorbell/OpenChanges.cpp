#include "platform/lattice/doorbell/OpenChanges.h"

#include <algorithm>
#include <utility>

namespace Lattice {

void OpenChanges::clear() {
  open_.clear();
  doneBehind_ = 0;
}

OpenChanges::Settled OpenChanges::settle(uint64_t sequence) {
  if (open_.size() == 1 && open_.front().sequence == sequence) {
    open_.clear();
    return Settled::inOrder;
  }
  const auto found = std::ranges::lower_bound(open_, sequence, {}, &Open::sequence);
  if (found == open_.end() || found->sequence != sequence) return Settled::unknown;
  if (found != open_.begin()) {
    doneBehind_ += !std::exchange(found->done, true);
    forgetDoneBehind();
    return Settled::behind;
  }
  open_.pop_front();
  for (; !open_.empty() && open_.front().done; --doneBehind_) open_.pop_front();
  return Settled::inOrder;
}

// So that they do not grow without end behind one that stays open.
void OpenChanges::forgetDoneBehind() {
  constexpr size_t few = 1024;
  if (doneBehind_ < few || doneBehind_ < open_.size() / 2) return;
  std::erase_if(open_, [](const Open& open) { return open.done; });
  doneBehind_ = 0;
}

uint64_t OpenChanges::settledUpTo(uint64_t passedOn) const {
  return open_.empty() ? passedOn : std::min(passedOn, open_.front().sequence - 1);
}

}  // namespace Lattice
