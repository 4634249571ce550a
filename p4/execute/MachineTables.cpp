// Look-ups in tables.
#include "p4/execute/Machine.h"

namespace P4 {
namespace {

// Words of an LPM element: the highest first, the field's bits at their top.
void turnRound(uint64_t* words, uint32_t count, uint32_t shift) {
  for (uint32_t i = 0; i < count / 2; ++i) std::swap(words[i], words[count - 1 - i]);
  if (shift == 0) return;
  for (uint32_t i = 0; i < count; ++i)
    words[i] = words[i] << shift | (i + 1 < count ? words[i + 1] >> (64 - shift) : 0);
}

void makeWideElement(const KeySource& source, bool valid, const uint64_t* state, uint64_t* words) {
  if (valid)
    loadWords(source.place, state, words);
  else
    std::memset(words, 0, source.words * sizeof(uint64_t));
  for (size_t i = 0; i < source.mask.size(); ++i) words[i] &= source.mask[i];
  if (source.highFirst) turnRound(words, source.words, source.shiftLeft);
}

void makeKey(const TableCode& table, const uint64_t* state, uint64_t* key) {
  for (const KeySource& source : table.key) {
    const bool valid = source.valid == noSlot || state[source.valid];
    if (source.words != 1) {
      makeWideElement(source, valid, state, key + source.word);
      continue;
    }
    const uint64_t word = valid ? loadField(source.place, state) : 0;
    key[source.word] = (word & source.firstMask) << source.shiftLeft;
  }
}

}  // namespace

void Machine::hit(const TableCode& table, const Entry& found, Packet& packet) {
  auto& entry = const_cast<Entry&>(found);  // its counter and its meter
  if (table.counters) entry.counter.add(packet.ingressLength);
  if (table.meters) {
    const uint64_t units = table.meterBytes ? packet.ingressLength : 1;
    const Colour colour =
        entry.meter ? entry.meter->execute(sideNumber_, now_, units) : Colour::green;
    storeField(table.meterResult, packet.state.get(), static_cast<uint64_t>(colour));
  }
  if (table.ageing) entry.lastHit.store(packet.receivedAt, std::memory_order_relaxed);
}

const ActionData* Machine::chosen(const TableCode& table, const Group& group,
                                  const Packet& packet) {
  const std::vector<const Member*>& members = group.active[sideNumber_];
  if (members.empty()) return nullptr;
  const uint32_t calculation = image_.profileCalculations[table.profile];
  const auto number = static_cast<uint32_t>(calculator_.calculate(calculation, packet));
  return members[number % members.size()]->action[sideNumber_];
}

const ActionData* Machine::actionOf(const TableCode& table, const Outcome& outcome,
                                    const Packet& packet) {
  if (outcome.action) return outcome.action;
  if (outcome.member) return outcome.member->action[sideNumber_];
  return outcome.group ? chosen(table, *outcome.group, packet) : nullptr;
}

const ActionData* Machine::lookUp(uint32_t position, Packet& packet, uint32_t& next) {
  const TableCode& table = image_.tables[position];
  const Entry* entry = nullptr;
  uint64_t key[maxKeyWords + 1];
  const TableIndex& index = side_->tables[position];
  if (!table.key.empty() && (trace_ || !index.empty())) {
    makeKey(table, packet.state.get(), key);
    entry = index.find(key);
  }
  if (entry && table.notesHits) hit(table, *entry, packet);
  const ActionData* action =
      actionOf(table, entry ? entry->outcome[sideNumber_] : side_->defaults[position], packet);
  if (trace_) trace_->onTable(position, key, entry, action);
  if (!action)
    next = table.onMiss;
  else if (table.byHit)
    next = entry ? table.onHit : table.onMiss;
  else
    next = table.onAction[action->action - table.firstAction];
  return action;
}

}  // namespace P4
