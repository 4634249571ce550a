// One update of a Write, checked against the P4Info and encoded for the target.
#include "PI/frontend/UpdateCheck.h"

#include <cstring>

#include "PI/frontend/ActionCodec.h"
#include "PI/frontend/EntityText.h"
#include "PI/frontend/KeyCodec.h"
#include "PI/frontend/Refusal.h"

namespace pi::fe::proto {

using p4::v1::TableEntry;
using p4::v1::Update;

namespace {

const TableEntry& checkedEntity(const P4InfoIndex& index, const Update& update) {
  if (update.type() != Update::INSERT && update.type() != Update::MODIFY &&
      update.type() != Update::DELETE) {
    refuse(code::invalidArgument, "the update's type is ", static_cast<int>(update.type()),
           "; it must be INSERT, MODIFY or DELETE");
  }
  if (update.entity().has_table_entry()) return update.entity().table_entry();
  const std::string text = entityText(index, update.entity());
  if (text.empty()) refuse(code::invalidArgument, "the update names no entity");
  refuse(code::unimplemented, text, ": writing it is not supported");
}

[[noreturn]] void refuseDefaultEntry(const TablePlan& table, const TableEntry& entry,
                                     Update::Type type) {
  const std::string it = absl::StrCat("table ", table.name, ": the default entry ");
  if (entry.match_size() != 0 || entry.priority() != 0) {
    refuse(code::invalidArgument, it, "has neither match nor priority");
  }
  if (type != Update::MODIFY) refuse(code::invalidArgument, it, "always exists; use MODIFY");
  if (entry.idle_timeout_ns() != 0 || entry.has_time_since_last_hit()) {
    refuse(code::invalidArgument, it, "has no idle time-out");
  }
  if (table.constDefaultActionId != 0 || table.implementationId != 0) {
    refuse(code::permissionDenied, it, "is constant");
  }
  refuse(code::unimplemented, it, "cannot be changed: not supported");
}

void checkIdleTimeout(const TablePlan& table, const TableEntry& entry) {
  if (entry.has_time_since_last_hit()) {
    refuse(code::invalidArgument, "table ", table.name, ": time_since_last_hit cannot be written");
  }
  if (entry.idle_timeout_ns() == 0) return;
  if (entry.idle_timeout_ns() < 0 || !table.hasIdleTimeout) {
    refuse(code::invalidArgument, "table ", table.name, ": the idle time-out is ",
           entry.idle_timeout_ns(), table.hasIdleTimeout ? "" : "; its entries have none");
  }
  refuse(code::unimplemented, "table ", table.name, ": idle time-outs are not supported");
}

bool anyNonZero(const p4::v1::CounterData& data) {
  return data.byte_count() != 0 || data.packet_count() != 0;
}

void checkDirectResources(const TablePlan& table, const TableEntry& entry) {
  const auto check = [&](bool given, bool present, const char* field, const char* resource) {
    if (!given) return;
    if (!present) {
      refuse(code::invalidArgument, "table ", table.name, " has no direct ", resource, " for ",
             field);
    }
    refuse(code::unimplemented, "table ", table.name, ": writing ", field, " is not supported");
  };
  check(entry.has_counter_data(), table.hasDirectCounter, "counter_data", "counter");
  check(entry.has_meter_config(), table.hasDirectMeter, "meter_config", "meter");
  const auto& colors = entry.meter_counter_data();
  if (table.hasDirectMeter &&
      (anyNonZero(colors.green()) || anyNonZero(colors.yellow()) || anyNonZero(colors.red()))) {
    refuse(code::invalidArgument, "table ", table.name, ": meter_counter_data must be zero");
  }
  check(entry.has_meter_counter_data(), table.hasDirectMeter, "meter_counter_data", "meter");
}

// What does not depend on the key; a DELETE looks at the key alone.
void checkFields(const TablePlan& table, const TableEntry& entry, Update::Type type) {
  if (type == Update::DELETE) return;
  checkIdleTimeout(table, entry);
  checkDirectResources(table, entry);
  if (type != Update::INSERT) return;
  if (table.fields.empty()) {
    refuse(code::invalidArgument, "table ", table.name,
           " has no match fields and so only a default entry");
  }
  if (!entry.has_action()) {
    refuse(code::invalidArgument, "table ", table.name, ": an INSERT needs an action");
  }
}

void checkTable(const TablePlan& table, const TableEntry& entry, Update::Type type) {
  if (entry.is_const()) {
    refuse(code::invalidArgument, "table ", table.name, ": is_const cannot be written");
  }
  if (entry.is_default_action()) refuseDefaultEntry(table, entry, type);
  if (table.isConst) {
    refuse(code::permissionDenied, "table ", table.name, " is constant");
  }
  if (!table.unsupported.empty()) {
    refuse(code::unimplemented, "table ", table.name, ": ", table.unsupported);
  }
}

}  // namespace

const TablePlan& checkedTable(const P4InfoIndex& index, uint32_t tableId) {
  const TablePlan* table = index.table(tableId);
  if (table != nullptr) return *table;
  if (tableId == 0) refuse(code::invalidArgument, "the table id is 0");
  refuse(code::invalidArgument, "the table id is that of ", index.objectText(tableId));
}

CheckedUpdate checkedUpdate(const P4InfoIndex& index, const Update& update) {
  const TableEntry& given = checkedEntity(index, update);
  CheckedUpdate result;
  result.type = update.type();
  result.table = &checkedTable(index, given.table_id());
  const TablePlan& table = *result.table;
  checkTable(table, given, update.type());
  checkFields(table, given, update.type());
  const bool isDelete = update.type() == Update::DELETE;
  if (!isDelete && given.has_action()) result.action = &checkedAction(table, given.action());
  const std::string& metadata = given.metadata();
  EntryPtr entry =
      Entry::make(table.id, table.keyBytes, result.action == nullptr ? 0 : result.action->dataBytes,
                  isDelete ? 0 : metadata.size());
  entry->priority = checkedPriority(table, given);
  encodeKey(table, given, entry->keyData());
  if (result.action != nullptr) {
    entry->actionId = result.action->id;
    encodeActionData(table, *result.action, given.action().action(), entry->actionData());
  }
  if (!isDelete) {
    entry->controllerMetadata = given.controller_metadata();
    std::memcpy(entry->metadataData(), metadata.data(), metadata.size());
  }
  result.slot.hash = entry->key().hash();
  result.slot.entry = std::move(entry);
  return result;
}

}  // namespace pi::fe::proto
