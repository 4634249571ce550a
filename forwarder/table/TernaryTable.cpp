// Groups of rows by mask, hashed by the value under it.
#include "forwarder/table/TernaryTable.h"

#include <absl/hash/hash.h>
#include <absl/types/span.h>

#include <algorithm>

namespace Forwarder {
namespace {

template <typename Bytes>
size_t hashOf(const Bytes& bytes) {
  return absl::HashOf(absl::Span<const uint8_t>(bytes.data(), bytes.size()));
}

template <typename Bytes>
std::string textOf(const Bytes& bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

}  // namespace

bool TernaryTable::SameValue::operator()(const Slot& slot, const Probe& probe) const {
  if (slot.hash != probe.hash) return false;
  Bytes value(layout->packetSize());
  layout->valueUnder(probe.mask.data(), slot.rows.front()->key(), value.data());
  return value == probe.value;
}

TernaryTable::Bytes TernaryTable::maskOf(const StoredRow& row) const {
  Bytes mask(layout().packetSize());
  layout().maskOf(row.key(), mask.data());
  return mask;
}

TernaryTable::Bytes TernaryTable::valueOf(const StoredRow& row, const Bytes& mask) const {
  Bytes value(layout().packetSize());
  layout().valueUnder(mask.data(), row.key(), value.data());
  return value;
}

TernaryTable::Group& TernaryTable::groupOf(const Bytes& mask) {
  std::unique_ptr<Group>& group = groups_[textOf(mask)];
  if (!group) {
    group = std::make_unique<Group>(
        Group{.mask = mask, .slots = Slots(0, HashOfSlot(), SameValue{&layout()})});
    orderStale_ = true;
  }
  return *group;
}

// Among rows of equal priority the longer prefix wins, then the lesser key: look-ups do not depend
// on the order of programming.
bool TernaryTable::better(const StoredRow& a, const StoredRow& b) const {
  const uint64_t priorityA = layout().priority(a.key());
  const uint64_t priorityB = layout().priority(b.key());
  if (priorityA != priorityB) return priorityA > priorityB;
  for (const MatchField& field : layout().fields()) {
    const uint64_t lengthA = layout().prefixLength(field, a.key());
    const uint64_t lengthB = layout().prefixLength(field, b.key());
    if (lengthA != lengthB) return lengthA > lengthB;
  }
  return a.key() < b.key();
}

void TernaryTable::handleRowAdded(const StoredRow& row) {
  const Bytes mask = maskOf(row);
  const Bytes value = valueOf(row, mask);
  const size_t hash = hashOf(value);
  Group& group = groupOf(mask);
  bool alone = false;
  const auto slot = group.slots.lazy_emplace(Probe{value, mask, hash}, [&](const auto& construct) {
    construct(row, hash);
    alone = true;
  });
  if (!alone) {
    const auto byRank = [this](const auto* a, const auto* b) { return better(*a, *b); };
    auto& rows = const_cast<Slot&>(*slot).rows;  // the value they share stays as it is
    rows.insert(std::lower_bound(rows.begin(), rows.end(), &row, byRank), &row);
  }
  const uint64_t priority = layout().priority(row.key());
  if (priority > group.priorityBound) {
    group.priorityBound = priority;
    orderStale_ = true;
  }
}

void TernaryTable::handleRowLeaving(const StoredRow& row) {
  const Bytes mask = maskOf(row);
  const Bytes value = valueOf(row, mask);
  Group& group = groupOf(mask);
  const auto slot = group.slots.find(Probe{value, mask, hashOf(value)});
  const auto byRank = [this](const auto* a, const auto* b) { return better(*a, *b); };
  auto& rows = const_cast<Slot&>(*slot).rows;
  rows.erase(std::lower_bound(rows.begin(), rows.end(), &row, byRank));
  if (rows.empty()) group.slots.erase(slot);
  if (group.slots.empty()) {
    groups_.erase(textOf(mask));
    orderStale_ = true;
  } else if (++group.rowsLeftSinceBound > group.slots.size()) {
    doTightenBound(group);
  }
}

// Walks the whole group. Called once for as many deletions: each pays for one step.
void TernaryTable::doTightenBound(Group& group) {
  group.priorityBound = 0;
  for (const Slot& slot : group.slots) {
    group.priorityBound =
        std::max(group.priorityBound, layout().priority(slot.rows.front()->key()));
  }
  group.rowsLeftSinceBound = 0;
  orderStale_ = true;
}

// The best of the slot's rows that the packet matches; null for none. They differ in priority and
// ranges.
const StoredRow* TernaryTable::firstInRanges(const Slot& slot,
                                             std::span<const uint8_t> packet) const {
  if (!layout().hasRanges()) return slot.rows.front();
  const auto hit = std::ranges::find_if(slot.rows, [&](const StoredRow* row) {
    return layout().inRanges(packet.data(), row->key());
  });
  return hit == slot.rows.end() ? nullptr : *hit;
}

const StoredRow* TernaryTable::lookup(std::span<const uint8_t> packet) const {
  if (orderStale_) {
    order_.clear();
    for (const auto& [mask, group] : groups_) order_.push_back(group.get());
    std::sort(order_.begin(), order_.end(),
              [](const Group* a, const Group* b) { return a->priorityBound > b->priorityBound; });
    orderStale_ = false;
  }
  const StoredRow* best = nullptr;
  Bytes value(packet.size());
  for (const Group* group : order_) {
    if (best && layout().priority(best->key()) > group->priorityBound) break;
    for (size_t i = 0; i < packet.size(); ++i) value[i] = packet[i] & group->mask[i];
    const auto slot = group->slots.find(Probe{value, group->mask, hashOf(value)});
    if (slot == group->slots.end()) continue;
    const StoredRow* hit = firstInRanges(*slot, packet);
    if (hit && (!best || better(*hit, *best))) best = hit;
  }
  return best;
}

}  // namespace Forwarder
