// Direct meters and counters in updates.
#include "PI/frontend/check/DirectResourceCheck.h"

#include <limits>

#include "PI/frontend/base/Refusal.h"
#include "PI/frontend/check/MeterCheck.h"
#include "PI/frontend/store/ActionCodec.h"
#include "PI/frontend/store/KeyCodec.h"

namespace pi::fe::proto {

using p4::v1::CounterData;
using p4::v1::MeterConfig;
using p4::v1::TableEntry;
using p4::v1::Update;

namespace {

bool isZero(const CounterData& data) { return data.byte_count() == 0 && data.packet_count() == 0; }

void requireResource(const TablePlan& table, bool present, const char* resource,
                     const char* field) {
  if (present) return;
  refuse(code::invalidArgument, "table ", table.name, " has no direct ", resource, " for ", field);
}

void checkCounts(const TablePlan& table, const CounterData& data) {
  if (data.byte_count() >= 0 && data.packet_count() >= 0) return;
  refuse(code::invalidArgument, "table ", table.name, ": a count is negative");
}

Counts countsOf(const CounterData& data) {
  return {static_cast<uint64_t>(data.byte_count()), static_cast<uint64_t>(data.packet_count())};
}

// Zeros are where a counter starts, so they say nothing new in an INSERT.
void checkCounter(const TablePlan& table, const TableEntry& entry, Update::Type type) {
  if (!entry.has_counter_data()) return;
  requireResource(table, table.counter.has_value(), "counter", "counter_data");
  if (type == Update::INSERT && isZero(entry.counter_data())) return;
  if (table.setsCounters) return checkCounts(table, entry.counter_data());
  refuse(code::unimplemented, "table ", table.name,
         ": writing counter_data is not supported; counters start at 0 with their entry");
}

void checkWhatTheTargetTakes(const TablePlan& table, const MeterConfig& config) {
  constexpr int64_t kMax = std::numeric_limits<uint32_t>::max();
  if (config.cburst() > kMax || config.pburst() > kMax) {
    refuse(code::outOfRange, "table ", table.name, ": direct meter: bursts of more than ", kMax,
           " are not supported");
  }
  if (config.eburst() == 0) return;
  refuse(code::unimplemented, "table ", table.name,
         ": direct meter: an eburst other than 0 is not supported");
}

void checkConfig(const TablePlan& table, const MeterConfig& config) {
  checkMeterConfig(absl::StrCat("table ", table.name, ": direct meter"), table.meter->type, config);
  checkWhatTheTargetTakes(table, config);
}

MeterSetting settingOf(const MeterConfig& config) {
  return {static_cast<uint64_t>(config.cir()), static_cast<uint64_t>(config.pir()),
          static_cast<uint32_t>(config.cburst()), static_cast<uint32_t>(config.pburst())};
}

const TablePlan& tableOfResources(const TablePlan& table, const TableEntry& entry,
                                  const char* resource) {
  if (!entry.is_default_action()) return table;
  if (entry.match_size() != 0 || entry.priority() != 0) {
    refuse(code::invalidArgument, "table ", table.name,
           ": the default entry has neither match nor priority");
  }
  return tableOfDefaultResources(table, resource);
}

// The table of a resource's entry, or that of its default entry; `given` is a DirectMeterEntry or a
// DirectCounterEntry.
template <typename Given>
const TablePlan& checkedTableOf(const P4InfoIndex& index, const Given& given, Update::Type type,
                                const char* resource) {
  if (!given.has_table_entry()) {
    refuse(code::invalidArgument, "the direct ", resource, " entry names no table_entry");
  }
  const TablePlan& table = checkedTable(index, given.table_entry().table_id());
  if (type == Update::MODIFY) return tableOfResources(table, given.table_entry(), resource);
  refuse(code::invalidArgument, "table ", table.name, ": a direct ", resource,
         " comes and goes with its entry; use MODIFY");
}

EntryPtr keyOf(const TablePlan& table, const TableEntry& entry,
               const std::optional<MeterSetting>& meter, NamePins* names) {
  if (table.isDefaultEntry) return programsDefault(table, meter, names);
  if (!table.unsupported.empty()) {
    refuse(code::unimplemented, "table ", table.name, ": ", table.unsupported);
  }
  EntryPtr key = Entry::make(table.id, table.keyBytes, 0, 0, meter);
  key->kind = EntryKind::keyAlone;
  key->priority = checkedPriority(table, entry.priority());
  encodeKey(table, entry, key->keyData());
  return key;
}

}  // namespace

const TablePlan& tableOfDefaultResources(const TablePlan& table, const char* resource) {
  const TablePlan* defaults = table.defaultEntry.get();
  if (defaults != nullptr && (defaults->counter || defaults->meter)) return *defaults;
  refuse(code::unimplemented, "table ", table.name, ": the default entry's direct ", resource,
         " is not supported");
}

void requireDefaultAction(const TablePlan& table) {
  if (table.defaultAction.action_id() != 0) return;
  refuse(code::unimplemented, "table ", table.name,
         ": the program names no default action; set one before its direct resources");
}

EntryPtr programsDefault(const TablePlan& table, const std::optional<MeterSetting>& meter,
                         NamePins* names) {
  if (table.defaultAction.action_id() == 0) {
    EntryPtr key = Entry::make(table.id, table.keyBytes, 0, 0, meter);
    key->kind = EntryKind::keyAlone;
    *key->keyData() = 0;
    return key;
  }
  const ActionPlan& action = checkedAction(table, table.defaultAction.action_id());
  EntryPtr entry = Entry::make(table.id, table.keyBytes, action.dataBytes, 0, meter);
  entry->actionId = action.id;
  *entry->keyData() = 0;
  encodeActionData(table, action, table.defaultAction, entry->actionData(), {names, true});
  return entry;
}

void checkDirectResources(const TablePlan& table, const TableEntry& entry, Update::Type type) {
  checkCounter(table, entry, type);
  if (entry.has_meter_config()) {
    requireResource(table, table.meter.has_value(), "meter", "meter_config");
    checkConfig(table, entry.meter_config());
  }
  if (entry.has_meter_counter_data()) {
    requireResource(table, table.meter.has_value(), "meter", "meter_counter_data");
    refuseColors("table " + table.name, entry.meter_counter_data(), "meter_counter_data");
  }
}

std::optional<Counts> givenCounts(const TableEntry& entry, Update::Type type) {
  if (type == Update::DELETE || !entry.has_counter_data()) return std::nullopt;
  if (type == Update::INSERT && isZero(entry.counter_data())) return std::nullopt;
  return countsOf(entry.counter_data());
}

std::optional<MeterSetting> meterSetting(const TablePlan& table, const TableEntry& entry) {
  if (!table.meter || !entry.has_meter_config()) return std::nullopt;
  return settingOf(entry.meter_config());
}

CheckedUpdate checkedDirectMeter(const P4InfoIndex& index, const p4::v1::DirectMeterEntry& given,
                                 Update::Type type) {
  CheckedUpdate result;
  result.subject = CheckedUpdate::Subject::directMeter;
  const TablePlan& table = checkedTableOf(index, given, type, "meter");
  requireResource(table, table.meter.has_value(), "meter", "a direct meter entry");
  std::optional<MeterSetting> setting;
  if (given.has_config()) {
    checkConfig(table, given.config());
    setting = settingOf(given.config());
  }
  if (given.has_counter_data())
    refuseColors("table " + table.name, given.counter_data(), "counter_data");
  result.table = &table;
  result.profile = table.profile;
  result.slot.entry = keyOf(table, given.table_entry(), setting, &result.names);
  return result;
}

CheckedUpdate checkedDirectCounter(const P4InfoIndex& index,
                                   const p4::v1::DirectCounterEntry& given, Update::Type type) {
  CheckedUpdate result;
  result.subject = CheckedUpdate::Subject::directCounter;
  const TablePlan& table = checkedTableOf(index, given, type, "counter");
  requireResource(table, table.counter.has_value(), "counter", "a direct counter entry");
  if (given.has_data() && !table.setsCounters) {
    refuse(code::unimplemented, "table ", table.name, ": writing direct counters is not supported");
  }
  if (given.has_data()) {
    checkCounts(table, given.data());
    result.withExtras().counts = countsOf(given.data());
  }
  result.table = &table;
  result.profile = table.profile;
  result.slot.entry = keyOf(table, given.table_entry(), std::nullopt, &result.names);
  return result;
}

}  // namespace pi::fe::proto
