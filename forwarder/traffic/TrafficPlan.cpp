#include "forwarder/traffic/TrafficPlan.h"

#include <algorithm>
#include <cstring>

#include "platform/lattice/types/RowWalk.h"

namespace Forwarder {
namespace {

using Lattice::ColumnType;
using Lattice::TableType;

// "ALIAS.member" and "ALIAS.group", keyed by nothing but an id.
bool isProfileTable(const ProgrammedTable& table, std::string_view suffix) {
  const auto& key = table.type()->keyColumns();
  return table.name().ends_with(suffix) && key.size() == 1 && key[0].type == ColumnType::u32;
}

bool startsWithArray(const TableType& type) {
  const auto& parts = type.valueParts();
  return !parts.empty() && parts[0].part == TableType::Part::column &&
         parts[0].column.type == ColumnType::u32Array;
}

bool includes(const std::vector<FieldNumber>& all, const std::vector<FieldNumber>& some) {
  return std::ranges::all_of(some, [&](FieldNumber f) { return std::ranges::count(all, f) > 0; });
}

}  // namespace

std::optional<IndirectColumns> IndirectColumns::of(const TableType& type) {
  const auto id = Lattice::offsetOfColumn(type, "indirect_id", ColumnType::u32);
  const auto isGroup = Lattice::offsetOfColumn(type, "is_group", ColumnType::u8);
  if (!id || !isGroup) return std::nullopt;
  return IndirectColumns{.idOffset = *id, .isGroupOffset = *isGroup};
}

TrafficPlan::TrafficPlan(const ForwardingAgent& agent, const std::vector<PacketHeader>& headers)
    : version_(agent.tablesVersion()) {
  for (const ProgrammedTable* table : agent.tables()) {
    if (table->type()) addTable(*table);
  }
  for (PlannedTable& table : tables_) {
    for (size_t i = 0; i < tables_.size(); ++i) {
      const bool itself = &tables_[i] == &table;
      if (!itself && includes(table.fields, tables_[i].fields)) table.covered.push_back(i);
    }
  }
  for (const PacketHeader& header : headers) addHeader(header);
}

void TrafficPlan::addTable(const ProgrammedTable& table) {
  if (isProfileTable(table, ".member")) return members_.push_back(table.rows());
  if (isProfileTable(table, ".group") && startsWithArray(*table.type())) {
    return groups_.push_back(table.rows());
  }
  PlannedTable planned{.table = &table, .indirect = IndirectColumns::of(*table.type())};
  for (const MatchField& field : table.rows()->layout().fields()) {
    planned.fields.push_back(fieldNumber(field.name));
  }
  tables_.push_back(std::move(planned));
}

void TrafficPlan::addHeader(const PacketHeader& header) {
  PlannedHeader planned;
  std::vector<FieldNumber> given;
  for (const auto& [name, value] : header.fields) {
    const auto field = fields_.find(name);
    if (field == fields_.end()) continue;  // no table looks at it
    planned.fields.emplace_back(field->second, &value);
    given.push_back(field->second);
  }
  for (size_t i = 0; i < tables_.size(); ++i) {
    const bool matched = std::ranges::any_of(
        given, [&](FieldNumber field) { return std::ranges::count(tables_[i].fields, field) > 0; });
    if (matched) planned.tables.push_back(i);
  }
  headers_.push_back(std::move(planned));
}

FieldNumber TrafficPlan::fieldNumber(const std::string& name) {
  return fields_.try_emplace(name, static_cast<FieldNumber>(fields_.size())).first->second;
}

const StoredRow* TrafficPlan::findRow(const Rows& tables, uint32_t id) {
  const uint32_t key = __builtin_bswap32(id);
  char bytes[sizeof key];
  std::memcpy(bytes, &key, sizeof key);
  for (const MatchTable* table : tables) {
    if (const StoredRow* row = table->row({bytes, sizeof bytes})) return row;
  }
  return nullptr;
}

}  // namespace Forwarder
