// Sends entities that are no table entries.
#include "PI/frontend/read/EntityReader.h"

#include <algorithm>

#include "PI/frontend/base/Lenience.h"
#include "PI/frontend/store/EntityRows.h"
#include "PI/pi_counter.h"

namespace pi::fe::proto {

using p4::v1::Entity;

namespace {

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

// Of a register's cell: big-endian bytes, of which the leading zeros go.
void valueIs(const EntityPlan& plan, std::string_view value, p4::v1::P4Data* data) {
  const size_t first = std::min(value.find_first_not_of('\0'), value.size() - 1);
  if (plan.isBool) {
    data->set_bool_(value.back() != '\0');
  } else {
    data->set_bitstring(std::string(value.substr(first)));
  }
}

}  // namespace

bool EntityReader::sendAll(const Query& query) {
  if (query.entity != nullptr) return sendAllOf(*query.entity);
  for (const auto& plan : index_.entities()) {
    if (plan->kind != query.entityKind || plan->table == nullptr) continue;
    if (!sendAllOf(*plan)) return false;
  }
  return true;
}

bool EntityReader::sendAllOf(const EntityPlan& plan) {
  if (plan.isArray()) return sendCells(plan);
  if (plan.kind != EntityKind::valueSet) return sendRows(plan);
  return sendCell(plan, 0, snapshot_.onlyEntry(plan.table->id));
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
  for (int64_t cell = 0; cell < plan.size; ++cell) {
    const auto index = static_cast<uint64_t>(cell);
    const bool hasRow = row != rows.end() && cellIndex(**row) == index;
    if (!sendCell(plan, index, hasRow ? *row++ : nullptr)) return false;
  }
  return true;
}

bool EntityReader::sendOne(const Query& query, const Entry* found) {
  const EntityPlan& plan = *query.entity;
  if (plan.kind == EntityKind::registerArray) {
    registers_.emplace(session_, plan, cellIndex(*query.key) + 1);
  }
  if (plan.isArray() || plan.kind == EntityKind::valueSet) {
    return sendCell(plan, cellIndex(*query.key), found);
  }
  Entity entity;
  return found == nullptr || !readEntity(plan, *found, &entity) || sender_.sendEntity(&entity);
}

bool EntityReader::sendCell(const EntityPlan& plan, uint64_t cell, const Entry* row) {
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
    countIs(plan, cell, &counter);
  }
  return sender_.sendEntity(&entity);
}

// A cell that nobody has counted for stands where it was set.
void EntityReader::countIs(const EntityPlan& plan, uint64_t cell,
                           p4::v1::CounterEntry* counter) const {
  pi_counter_data_t count{};
  const pi_status_t status = pi_counter_read(session_.handle, {session_.deviceId, 0xffff}, plan.id,
                                             cell, PI_COUNTER_FLAGS_NONE, &count);
  p4::v1::CounterData& data = *counter->mutable_data();
  if (status == PI_STATUS_SUCCESS && count.valid != 0) {
    data.set_byte_count(static_cast<int64_t>(count.bytes));
    data.set_packet_count(static_cast<int64_t>(count.packets));
  }
  if (bothCountsRead()) return;
  if (!plan.countsBytes) data.clear_byte_count();
  if (!plan.countsPackets) data.clear_packet_count();
}

const Entry* EntityReader::rowOfAllCells(const EntityPlan& plan) const {
  const TablePlan* all = plan.table->defaultEntry.get();
  return all == nullptr ? nullptr : snapshot_.onlyEntry(all->id);
}

}  // namespace pi::fe::proto
