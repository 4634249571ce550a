#include "platform/lattice/counters/FlowCountersLookup.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

namespace Lattice {
namespace {

constexpr size_t slotsAtOnce = 16;  // nearly every search ends within them
// A search ends here: only a file without order has so many slots in use in a row.
constexpr uint64_t searchLimit = 4096;
// Of slots that are not sound, in one search: each time the writer has had time to finish, or the
// head tells the slot.
constexpr unsigned rereads = 8;

}  // namespace

std::unique_ptr<FlowCountersLookup> FlowCountersLookup::open(const std::string& path) {
  Vela::UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  struct stat status {};
  if (!file || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return nullptr;
  std::unique_ptr<FlowCountersLookup> lookup(new FlowCountersLookup(std::move(file)));
  const auto head = lookup->head();
  if (!head || static_cast<uint64_t>(status.st_size) < slotOffset(head->slots)) return nullptr;
  return lookup;
}

std::optional<CountsHead> FlowCountersLookup::head() const {
  CountsHead head;
  if (pread(file_.get(), &head, sizeof head, 0) != sizeof head) return std::nullopt;
  if (!isSound(head)) return std::nullopt;
  return head;
}

// Returns how many were there to be read.
size_t FlowCountersLookup::read(uint64_t number, std::span<CountSlot> slots) const {
  const ssize_t got =
      pread(file_.get(), slots.data(), slots.size_bytes(), static_cast<off_t>(slotOffset(number)));
  return got <= 0 ? 0 : static_cast<size_t>(got) / sizeof(CountSlot);
}

// Reads a slot again that was not sound. False: it is no better now.
bool FlowCountersLookup::mend(uint64_t number, CountSlot* slot) const {
  if (read(number, {slot, 1}) == 0) return false;
  if (isSound(*slot, number)) return true;
  const auto now = head();
  if (!now || now->writtenNumber != number + 1) return false;
  *slot = now->written;
  return slot->check == slotCheck(*slot, number);
}

// Visits the sound slots from `first` on, and after the last those from 0 on, until `visit` returns
// false.
template <typename Visit>
void FlowCountersLookup::forEachSlot(uint64_t first, uint64_t slots, uint64_t atMost,
                                     Visit visit) const {
  unsigned left = rereads;
  const auto visitSound = [&](uint64_t number, CountSlot& slot) {
    bool sound = isSound(slot, number);
    while (!sound && left > 0) {
      --left;
      sound = mend(number, &slot);
    }
    return !sound || visit(slot);
  };
  CountSlot some[slotsAtOnce];
  for (uint64_t seen = 0; seen < atMost;) {
    const uint64_t number = (first + seen) & (slots - 1);
    const size_t wanted = std::min({slotsAtOnce, slots - number, atMost - seen});
    if (read(number, {some, wanted}) < wanted) return;
    for (size_t i = 0; i < wanted; ++i) {
      if (!visitSound(number + i, some[i])) return;
    }
    seen += wanted;
  }
}

std::optional<FlowCount> FlowCountersLookup::find(const CountsHead& head, FlowHash hash) const {
  std::optional<FlowCount> count;
  forEachSlot(firstSlot(hash, head.slots), head.slots, std::min(head.slots, searchLimit),
              [&](const CountSlot& slot) {
                if (slot.hash == hash) count = slot.count;
                return !count && !slot.isEmpty();
              });
  return count;
}

bool FlowCountersLookup::hasAnyCount(const CountsHead& head) const {
  bool any = false;
  forEachSlot(0, head.slots, head.slots, [&](const CountSlot& slot) {
    any = slot.hasCount();
    return !any;
  });
  return any;
}

}  // namespace Lattice
