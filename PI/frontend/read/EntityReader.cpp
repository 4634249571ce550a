// Sends entities that are no table entries.
#include "PI/frontend/read/EntityReader.h"

#include <algorithm>

#include "PI/frontend/base/Lenience.h"
#include "PI/frontend/check/RightsCheck.h"
#include "PI/frontend/store/EntityRows.h"
#include "PI/target/pi_extensions_imp.h"

namespace pi::fe::proto {

using p4::v1::Entity;

namespace {

constexpr uint64_t kCountedTogether = 1024;  // cells

// By key, so that a Read of all is the same each time.
std::vector<const Entry*> sortedRows(const EntryStore::Snapshot& snapshot, const TablePlan& table) {
  std::vector<const Entry*> rows;
  for (const auto& page : snapshot.table(table.id).pages) {
    for (const EntryPtr& entry : page->entries) {
      if (entry) rows.push_back(entry.get());
    }
  }
  std::ranges::sort(rows, {}, [](const Entry* entry) { return entry->key().bytes; });
  return rows;
}

// Of a register's cell, from big-endian bytes.
void valueIs(const EntityPlan& plan, std::string_view value, p4::v1::P4Data* data) {
  if (plan.isBool) return data->set_bool_(value.back() != '\0');
  setAnswer(reinterpret_cast<const uint8_t*>(value.data()), value.size(),
            data->mutable_bitstring());
}

// A cell that nobody has counted for stands where it was set.
void countIs(const EntityPlan& plan, const pi_counter_data_t& count,
             p4::v1::CounterEntry* counter) {
  p4::v1::CounterData& data = *counter->mutable_data();
  if (count.valid != 0) {
    data.set_byte_count(static_cast<int64_t>(count.bytes));
    data.set_packet_count(static_cast<int64_t>(count.packets));
  }
  if (bothCountsRead()) return;
  if (!plan.countsBytes) data.clear_byte_count();
  if (!plan.countsPackets) data.clear_packet_count();
}

}  // namespace

bool EntityReader::sendAll(const Query& query, const EntityRights* rights) {
  if (query.entity != nullptr) return sendAllOf(*query.entity);
  for (const auto& plan : index_.entities()) {
    if (plan->kind != query.entityKind || plan->table == nullptr) continue;
    if (!mayRead(rights, objectOf(*plan))) continue;
    if (!sendAllOf(*plan)) return false;
  }
  return true;
}

bool EntityReader::sendAllOf(const EntityPlan& plan) {
  if (plan.isArray()) return sendCells(plan);
  if (plan.kind != EntityKind::valueSet) return sendRows(plan);
  return sendCell(plan, 0, snapshot_.onlyEntry(plan.table->id), nullptr);
}

bool EntityReader::sendRows(const EntityPlan& plan) {
  Entity entity;
  for (const Entry* row : sortedRows(snapshot_, *plan.table)) {
    if (readEntity(plan, *row, &entity) && !sender_.sendEntity(&entity)) return false;
  }
  return true;
}

bool EntityReader::sendCells(const EntityPlan& plan) {
  if (plan.kind == EntityKind::registerArray) {
    registers_.emplace(session_, plan, static_cast<uint64_t>(plan.size));
  }
  const std::vector<const Entry*> rows = sortedRows(snapshot_, *plan.table);
  auto row = rows.begin();
  const auto size = static_cast<uint64_t>(std::max<int64_t>(plan.size, 0));
  for (uint64_t first = 0; first < size; first += kCountedTogether) {
    const uint64_t end = std::min(size, first + kCountedTogether);
    const std::vector<pi_counter_data_t> counts = countsOf(plan, first, end - first);
    for (uint64_t cell = first; cell < end; ++cell) {
      const bool hasRow = row != rows.end() && cellIndex(**row) == cell;
      const pi_counter_data_t* count = counts.empty() ? nullptr : &counts[cell - first];
      if (!sendCell(plan, cell, hasRow ? *row++ : nullptr, count)) return false;
    }
  }
  return true;
}

bool EntityReader::sendOne(const Query& query, const Entry* found) {
  const EntityPlan& plan = *query.entity;
  if (plan.kind == EntityKind::registerArray) {
    registers_.emplace(session_, plan, cellIndex(*query.key) + 1);
  }
  if (plan.isArray() || plan.kind == EntityKind::valueSet) {
    const uint64_t cell = cellIndex(*query.key);
    const std::vector<pi_counter_data_t> counts = countsOf(plan, cell, 1);
    return sendCell(plan, cell, found, counts.empty() ? nullptr : counts.data());
  }
  Entity entity;
  return found == nullptr || !readEntity(plan, *found, &entity) || sender_.sendEntity(&entity);
}

bool EntityReader::sendCell(const EntityPlan& plan, uint64_t cell, const Entry* row,
                            const pi_counter_data_t* count) {
  Entity entity;
  if (row == nullptr) row = rowOfAllCells(plan);
  if (row != nullptr && !readEntity(plan, *row, &entity)) entity.Clear();
  const auto index = static_cast<int64_t>(cell);
  if (plan.kind == EntityKind::valueSet) {
    entity.mutable_value_set_entry()->set_value_set_id(plan.id);
  } else if (plan.kind == EntityKind::meter) {
    entity.mutable_meter_entry()->set_meter_id(plan.id);
    entity.mutable_meter_entry()->mutable_index()->set_index(index);
  } else if (plan.kind == EntityKind::registerArray) {
    auto& array = *entity.mutable_register_entry();
    array.set_register_id(plan.id);
    array.mutable_index()->set_index(index);
    const auto told = registers_->valueOf(cell);
    if (told || !array.has_data()) {
      valueIs(plan, told.value_or(std::string_view("\0", 1)), array.mutable_data());
    }
  } else {
    auto& counter = *entity.mutable_counter_entry();
    counter.set_counter_id(plan.id);
    counter.mutable_index()->set_index(index);
    countIs(plan, *count, &counter);
  }
  return sender_.sendEntity(&entity);
}

// The target is asked once for the counts of many cells: each question takes a turn of its lock.
std::vector<pi_counter_data_t> EntityReader::countsOf(const EntityPlan& plan, uint64_t first,
                                                      uint64_t cells) const {
  if (plan.kind != EntityKind::counter) return {};
  std::vector<pi_counter_data_t> counts(cells);
  _pi_counter_cells_read(session_.deviceId, plan.id, first, cells, counts.data());
  return counts;
}

const Entry* EntityReader::rowOfAllCells(const EntityPlan& plan) const {
  const TablePlan* all = plan.table->defaultEntry.get();
  return all == nullptr ? nullptr : snapshot_.onlyEntry(all->id);
}

}  // namespace pi::fe::proto
