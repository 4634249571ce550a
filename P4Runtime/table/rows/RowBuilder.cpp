#include "P4Runtime/table/rows/RowBuilder.h"

#include <fmt/format.h>

#include <algorithm>

#include "P4Runtime/table/rows/Refuse.h"
#include "platform/scrivel/Trace.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("TableImpl");

}  // namespace

void startKey(P4TableInfo& tableInfo, const ResourceId& table, const FieldBitwidths& widths,
              std::string_view key, RowFields& fields) {
  fields.count = 0;
  std::copy(key.begin(), key.end(), fields.keyBytes.begin());
  tableInfo.onNewRowStarted();
  tableInfo.extractFields(table, widths.slots(), fields.keyBytes.data(), fields.count,
                          fields.pointers.data());
}

RowFields& RowBuilder::startEntry(const WritableTable& table, std::string_view key) {
  if (key.size() != table.widths.encodedSize()) {
    refuse(ErrorCode::invalidArgument,
           fmt::format("table {}: the match key has {} bytes instead of {}",
                       tableInfo_.nameOf(table.rid), key.size(), table.widths.encodedSize()));
  }
  startKey(tableInfo_, table.rid, table.widths, key, *fields_);
  return *fields_;
}

RowFields& RowBuilder::startMemberOrGroup(uint32_t id) {
  RowFields& fields = *fields_;
  fields.count = 0;
  fields.id = id;
  tableInfo_.onNewRowStarted();
  fields.append(&fields.id);
  return fields;
}

std::string RowBuilder::entryRowKey(const WritableTable& table, const MatchKey& key) {
  RowFields& fields = startEntry(table, key.bytes);
  appendPriority(table, key.priority, fields);
  return table.constructor.constructKey(fields.all());
}

void RowBuilder::appendAction(const ResourceId& table, const ActionData& action,
                              RowFields& fields) const {
  if (!tableInfo_.actionIdColForTable(table).actionIdHas(action.actionId)) {
    refuse(ErrorCode::invalidAction, "no known action id found");
  }
  const ResourceId rid{actionResource, action.actionId};
  if (const std::string& why = tableInfo_.unprogrammable(rid); !why.empty()) {
    refuse(ErrorCode::cannotProgram,
           fmt::format("{} of {} cannot be programmed: {}", tableInfo_.kindAndName(rid),
                       tableInfo_.kindAndName(table), why));
  }
  const FieldBitwidths& widths = tableInfo_.fieldBitwidths(rid);
  if (action.bytes.size() != widths.encodedSize()) {
    refuse(ErrorCode::invalidArgument,
           fmt::format("action {}: its data has {} bytes instead of {}", tableInfo_.nameOf(rid),
                       action.bytes.size(), widths.encodedSize()));
  }
  std::copy(action.bytes.begin(), action.bytes.end(), fields.actionBytes.begin());
  fields.actionId = action.actionId;
  fields.append(&fields.actionId);
  tableInfo_.extractFields(rid, widths.slots(), fields.actionBytes.data(), fields.count,
                           fields.pointers.data());
}

// The lower half of a handle is the id that keys the member's or group's row.
void RowBuilder::appendIndirection(const MemberOrGroup& target, RowFields& fields) const {
  fields.indirectId = static_cast<uint32_t>(target.handle);
  fields.isGroup = target.isGroup;
  fields.append(&fields.indirectId);
  fields.append(&fields.isGroup);
}

void RowBuilder::appendDirectResources(const ResourceId& table, const DirectResources& direct,
                                       RowFields& fields) const {
  if (tableInfo_.hasDirectMeter(table)) {
    fields.meterGiven = direct.meter != nullptr;
    fields.meter = direct.meter
                       ? direct.meter
                       : p4MeterConfigFactory(0, 0, 0, 0, MeterUnitBytes, MeterTypeDefault);
    fields.append(&fields.meterGiven);
    fields.meter->stuffFields(fields.count, fields.pointers.data());
  }
  if (tableInfo_.hasDirectCounter(table)) {
    fields.counterGiven = direct.counter != nullptr;
    fields.counter = direct.counter ? direct.counter : p4CounterDataFactory(0, 0);
    fields.append(&fields.counterGiven);
    fields.counter->stuffFields(fields.count, fields.pointers.data());
  }
}

void RowBuilder::appendPriority(const WritableTable& table, uint32_t priority,
                                RowFields& fields) const {
  if (!table.needsPriority) return;
  if (priority == 0) {
    SCRIVEL_TRACE(1, "TableImpl", " unexpected 0 priority for resource ", table.rid.id);
  }
  fields.priority = priority;
  fields.append(&fields.priority);
}

}  // namespace P4Runtime
