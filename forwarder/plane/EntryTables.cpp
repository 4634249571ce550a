#include "forwarder/plane/EntryTables.h"

#include <algorithm>

#include "p4/tables/Refusal.h"

namespace Forwarder {
namespace {

ActionPositions positionsIn(const P4::Engine& engine, uint32_t table,
                            const Lattice::TableType& type, const ProgramNames& names) {
  return {type, names,
          [&](const std::string& name) { return P4::actionNamed(engine.program(), table, name); }};
}

bool sameMeter(const std::optional<Lattice::MeterColumns>& a,
               const std::optional<Lattice::MeterColumns>& b) {
  if (!a || !b) return false;
  return a->given == b->given && a->cir == b->cir && a->cburst == b->cburst && a->pir == b->pir &&
         a->pburst == b->pburst;
}

}  // namespace

EntryTable::EntryTable(P4::Engine& engine, uint32_t position, const Lattice::TableType& type,
                       const ProgramNames& names, IdleBook* idle)
    : engine_(engine),
      position_(position),
      type_(type),
      actions_(positionsIn(engine, position, type, names)),
      keys_(type, engine.program().tables[position], position),
      idle_(idle) {}

// Actions take turns with the memory of their arguments.
void EntryTable::readTarget() {
  if (table().profile == P4::absent) {
    if (!std::holds_alternative<P4::ActionSpec>(target_)) target_.emplace<P4::ActionSpec>();
    auto& spec = std::get<P4::ActionSpec>(target_);
    spec.action = actions_.positionOf(value_.actionId);
    spec.arguments.swap(value_.arguments);
    return;
  }
  if (value_.numbers.size() < 2) {
    throw P4::Refusal(P4::RefusalKind::invalid, "its rows name no member and no group");
  }
  const auto id = static_cast<uint32_t>(value_.numbers[0]);
  target_ = value_.numbers[1] != 0 ? P4::Target(P4::GroupId{id}) : P4::Target(P4::MemberId{id});
}

RowPlace EntryTable::writePlaced(const PlaneRow& row) {
  readValue(type_, row.value, &value_);
  P4::Entry* entry = put(row);
  if (entry == nullptr) return nullptr;
  if (row.entryHandle != 0) entry->cookie = row.entryHandle;
  if (entry->meter) maybeSetMeter(*entry, row);
  if (idle_ != nullptr) handleIdleRow(row.key, row.entryHandle, entry);
  return entry;
}

// An entry that no packet has met yet counts from its coming; another handle means another entry.
void EntryTable::handleIdleRow(std::string_view key, uint64_t entryHandle, P4::Entry* entry) {
  uint64_t& handle = idle_->handles[std::string(key)];
  if (entryHandle != 0 && entryHandle != handle) {
    forgetHandle(handle, entry);
    handle = entryHandle;
    entry->lastHit.store(idle_->now(), std::memory_order_relaxed);
  }
  entry->cookie = handle;
  if (handle != 0) byHandle_[handle] = entry;
  uint64_t never = 0;
  entry->lastHit.compare_exchange_strong(never, idle_->now());
  const auto timeToLive = idle_->timeToLive.find(std::string(key));
  if (timeToLive != idle_->timeToLive.end()) entry->timeToLive = timeToLive->second;
}

void EntryTable::handleIs(std::string_view key, RowPlace place, uint64_t entryHandle) {
  if (idle_ == nullptr) return;
  auto* entry = static_cast<P4::Entry*>(place);
  if (entry == nullptr) entry = engine_.tables().find(keys_.read(key));
  if (entry != nullptr) handleIdleRow(key, entryHandle, entry);
}

// The agent may have given the handle to another entry meanwhile.
void EntryTable::forgetHandle(uint64_t handle, const P4::Entry* entry) {
  const auto known = byHandle_.find(handle);
  if (known != byHandle_.end() && known->second == entry) byHandle_.erase(known);
}

std::optional<uint64_t> EntryTable::lastHit(uint64_t entryHandle) const {
  const auto known = byHandle_.find(entryHandle);
  if (known == byHandle_.end()) return std::nullopt;
  return known->second->lastHit.load(std::memory_order_relaxed);
}

// The program puts the entries of an immutable table in itself.
P4::Entry* EntryTable::put(const PlaneRow& row) {
  P4::TableStore& tables = engine_.tables();
  if (table().immutable) return tables.find(keys_.read(row.key));
  readTarget();
  if (row.place != nullptr) {
    auto* entry = static_cast<P4::Entry*>(row.place);
    tables.modify(*entry, target_);
    return entry;
  }
  const P4::EntryKey& key = keys_.read(row.key);
  if (!row.former) return &tables.insert(key, target_, 0, row.entryHandle);
  try {
    return &tables.modify(key, target_);
  } catch (const P4::Refusal& refusal) {
    // A row that an earlier program had no place for.
    if (refusal.kind() != P4::RefusalKind::notFound || tables.find(key) != nullptr) throw;
    return &tables.insert(key, target_, 0, row.entryHandle);
  }
}

void EntryTable::maybeSetMeter(P4::Entry& entry, const PlaneRow& row) {
  if (row.former && sameMeter(Lattice::meterOfRow(type_, *row.former), value_.meter)) return;
  std::optional<P4::MeterRates> rates;
  if (value_.meter && value_.meter->given) {
    rates = P4::MeterRates{value_.meter->cir, value_.meter->cburst, value_.meter->pir,
                           value_.meter->pburst};
  }
  engine_.tables().setMeter(entry, rates);
}

void EntryTable::erasePlaced(std::string_view key, RowPlace place) {
  auto* entry = static_cast<P4::Entry*>(place);
  if (idle_ != nullptr && entry == nullptr) entry = engine_.tables().find(keys_.read(key));
  if (!table().immutable) doRemove(key, entry);
  if (idle_ == nullptr) return;
  const auto handle = idle_->handles.find(std::string(key));
  if (handle == idle_->handles.end()) return;
  forgetHandle(handle->second, entry);
  idle_->handles.erase(handle);
}

void EntryTable::doRemove(std::string_view key, P4::Entry* entry) {
  if (entry != nullptr) return engine_.tables().remove(*entry);
  try {
    engine_.tables().remove(keys_.read(key));
  } catch (const P4::Refusal& refusal) {
    // A row that an earlier program had no place for.
    if (refusal.kind() != P4::RefusalKind::notFound) throw;
  }
}

void EntryTable::countsAre(std::string_view key, const RowFlow& flow) {
  P4::Entry* entry = engine_.tables().find(keys_.read(key));
  if (entry == nullptr) return;
  entry->cookie = flow.entryHandle;
  entry->counter.countsIs({.packets = flow.packets, .bytes = flow.bytes});
  entry->toldPackets = flow.packets;
}

bool EntryTable::eachCount(size_t most, const CountsOf& each) {
  const std::vector<P4::Entry*>& entries = engine_.tables().entries(position_);
  const size_t end = std::min(entries.size(), nextCount_ + most);
  for (; nextCount_ < end; ++nextCount_) {
    P4::Entry& entry = *entries[nextCount_];
    const P4::Counts counts = entry.counter.counts();
    if (entry.cookie == 0 || (counts.packets == entry.toldPackets && !isRetelling_)) continue;
    entry.toldPackets = counts.packets;
    each(entry.cookie, counts);
  }
  if (nextCount_ < entries.size()) return false;
  nextCount_ = 0;
  isRetelling_ = false;
  return true;
}

void EntryTable::timeToLiveIs(std::string_view key, uint64_t microseconds) {
  if (P4::Entry* entry = engine_.tables().find(keys_.read(key))) entry->timeToLive = microseconds;
}

DefaultTable::DefaultTable(P4::Engine& engine, uint32_t position, const Lattice::TableType& type,
                           const ProgramNames& names)
    : engine_(engine),
      position_(position),
      type_(type),
      actions_(positionsIn(engine, position, type, names)) {}

void DefaultTable::write(const PlaneRow& row) {
  RowValue value;
  readValue(type_, row.value, &value);
  engine_.tables().setDefault(position_, actions_.specOf(value));
}

void DefaultTable::erase(std::string_view) { engine_.tables().setDefault(position_, std::nullopt); }

void IdleTable::write(const PlaneRow& row) {
  RowValue value;
  readValue(type_, row.value, &value);
  constexpr uint64_t nanosecondsPerMicrosecond = 1000;
  uint64_t nanoseconds = 0;
  for (const std::string& argument : value.arguments) {
    for (const char byte : argument) nanoseconds = nanoseconds << 8 | static_cast<uint8_t>(byte);
  }
  const uint64_t microseconds = std::max<uint64_t>(nanoseconds / nanosecondsPerMicrosecond, 1);
  book_.timeToLive[std::string(row.key)] = microseconds;
  if (*entries_ != nullptr) (*entries_)->timeToLiveIs(row.key, microseconds);
}

void IdleTable::erase(std::string_view key) {
  book_.timeToLive.erase(std::string(key));
  if (*entries_ != nullptr) (*entries_)->timeToLiveIs(key, 0);
}

}  // namespace Forwarder
