// A table entry of an update, checked against the P4Info and encoded for the target.
#include "PI/frontend/check/TableEntryCheck.h"

#include <google/protobuf/util/message_differencer.h>

#include <algorithm>
#include <cstring>

#include "PI/frontend/base/ByteString.h"
#include "PI/frontend/base/Refusal.h"
#include "PI/frontend/check/ActionSetCheck.h"
#include "PI/frontend/check/DirectResourceCheck.h"
#include "PI/frontend/store/ActionCodec.h"
#include "PI/frontend/store/KeyCodec.h"
#include "PI/frontend/store/ProfileObjects.h"

namespace pi::fe::proto {

using p4::v1::TableAction;
using p4::v1::TableEntry;
using p4::v1::Update;

namespace {

// Whether the action is the program's default action; parameters come in any order and length.
bool isTheDefault(const TablePlan& table, const TableEntry& entry) {
  if (!entry.metadata().empty() || entry.controller_metadata() != 0) return false;
  if (entry.has_meter_config() || entry.has_counter_data()) return false;
  if (!entry.has_action()) return true;
  p4::v1::Action given = entry.action().action();
  if (!entry.action().has_action() || given.action_id() == 0) return false;
  if (const ActionUse* use = table.actionUse(given.action_id())) {
    shortenParams(*use->action, &given);
  }
  const auto byId = [](const auto& a, const auto& b) { return a.param_id() < b.param_id(); };
  p4::v1::Action programs = table.defaultAction;
  std::sort(given.mutable_params()->begin(), given.mutable_params()->end(), byId);
  std::sort(programs.mutable_params()->begin(), programs.mutable_params()->end(), byId);
  return google::protobuf::util::MessageDifferencer::Equals(given, programs);
}

void checkDefaultEntry(const TablePlan& table, const TableEntry& entry, Update::Type type) {
  const std::string it = absl::StrCat("table ", table.name, ": the default entry ");
  if (entry.match_size() != 0 || entry.priority() != 0) {
    refuse(code::invalidArgument, it, "has neither match nor priority");
  }
  if (type != Update::MODIFY) refuse(code::invalidArgument, it, "always exists; use MODIFY");
  if (entry.idle_timeout_ns() != 0 || entry.has_time_since_last_hit()) {
    refuse(code::invalidArgument, it, "has no idle time-out");
  }
  if (table.constDefaultActionId != 0 || table.profile != nullptr) {
    refuse(code::permissionDenied, it, "is constant");
  }
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
  if (table.idleTimeouts != nullptr) return;
  refuse(code::unimplemented, "table ", table.name, ": idle time-outs are not supported");
}

// The checks that do not depend on the key; a DELETE needs the key alone.
void checkFields(const TablePlan& table, const TableEntry& entry, Update::Type type) {
  if (type == Update::DELETE) return;
  checkIdleTimeout(table, entry);
  checkDirectResources(table, entry, type);
  if (type != Update::INSERT) return;
  if (table.fields.empty()) {
    refuse(code::invalidArgument, "table ", table.name,
           " has no match fields and so only a default entry");
  }
  if (!entry.has_action()) {
    refuse(code::invalidArgument, "table ", table.name, ": an INSERT needs an action");
  }
}

// Of a constant entry only the direct resources can be changed.
bool isOfDirectResources(const TablePlan& table, const TableEntry& entry, Update::Type type) {
  return (table.meter || table.counter) && type == Update::MODIFY && !entry.has_action() &&
         entry.metadata().empty() && entry.controller_metadata() == 0 &&
         entry.idle_timeout_ns() == 0;
}

void requireNotConst(const TablePlan& table, const TableEntry& entry) {
  if (!entry.is_const()) return;
  refuse(code::invalidArgument, "table ", table.name, ": is_const cannot be written");
}

void checkTable(const TablePlan& table, const TableEntry& entry, Update::Type type) {
  requireNotConst(table, entry);
  if (table.isConst && !isOfDirectResources(table, entry, type)) {
    refuse(code::permissionDenied, "table ", table.name, " is constant");
  }
  if (!table.unsupported.empty()) {
    refuse(code::unimplemented, "table ", table.name, ": ", table.unsupported);
  }
}

[[noreturn]] void refuseKind(const TablePlan& table, const TableAction& action) {
  if (table.profile == nullptr) {
    refuse(code::invalidArgument, "table ", table.name,
           " has no action profile: give the action itself, not a member, group or action set");
  }
  const bool isUnset = action.type_case() == TableAction::TYPE_NOT_SET;
  refuse(code::invalidArgument, "table ", table.name, " is that of action profile ",
         table.profile->name, table.profile->withSelector ? "" : ", which has no selector",
         ": give ", table.profile->withSelector ? "a member, group or action set" : "a member",
         isUnset ? "" : " instead");
}

void requireKind(const TablePlan& table, const TableAction& action) {
  const auto kind = action.type_case();
  const bool ofProfile = table.profile != nullptr;
  const bool ofSelector = ofProfile && table.profile->withSelector;
  const bool fits = (kind == TableAction::kAction && !ofProfile) ||
                    (kind == TableAction::kActionProfileMemberId && ofProfile) ||
                    (kind == TableAction::kActionProfileGroupId && ofSelector) ||
                    (kind == TableAction::kActionProfileActionSet && ofSelector);
  if (!fits) refuseKind(table, action);
}

// An entry without its key, with room for the metadata.
EntryPtr made(const TablePlan& table, const TableEntry& given, EntryKind kind, size_t actionSize) {
  EntryPtr entry = Entry::make(table.id, table.keyBytes, actionSize, given.metadata().size(),
                               meterSetting(table, given));
  entry->kind = kind;
  return entry;
}

// The parameters are encoded after the key: messages are fastest read from front to back.
EntryPtr direct(const TablePlan& table, const TableEntry& given) {
  const ActionPlan& action = checkedAction(table, given.action().action().action_id());
  EntryPtr entry = made(table, given, EntryKind::action, action.dataBytes);
  entry->actionId = action.id;
  return entry;
}

void maybeEncodeParams(const TablePlan& table, const TableEntry& given, Entry* entry,
                       NamePins* names) {
  if (entry->kind != EntryKind::action) return;
  const ActionPlan& action = *table.actionUse(entry->actionId)->action;
  encodeActionData(table, action, given.action().action(), entry->actionData(), {names, true});
}

EntryPtr pointing(const TablePlan& table, const TableEntry& given, EntryKind kind, uint32_t id) {
  if (id == 0) {
    refuse(code::invalidArgument, "table ", table.name, ": the ",
           kind == EntryKind::toGroup ? "group" : "member", " id is 0");
  }
  EntryPtr entry = made(table, given, kind, kReferenceBytes);
  referenceIs(entry.get(), {0, id});
  return entry;
}

EntryPtr oneShot(const TablePlan& table, const TableEntry& given, NamePins* names) {
  const auto& set = given.action().action_profile_action_set();
  checkActionSet(table, set, {names, true});
  const std::string bytes = canonicalBytes(table, set);
  const auto members = static_cast<size_t>(set.action_profile_actions_size());
  EntryPtr entry = made(table, given, EntryKind::actionSet, actionSetBytes(members, bytes.size()));
  actionSetIs(entry.get(), {0, std::vector<uint64_t>(members)}, bytes);
  return entry;
}

EntryPtr withAction(const TablePlan& table, const TableEntry& given, NamePins* names) {
  const TableAction& action = given.action();
  requireKind(table, action);
  switch (action.type_case()) {
    case TableAction::kActionProfileMemberId:
      return pointing(table, given, EntryKind::toMember, action.action_profile_member_id());
    case TableAction::kActionProfileGroupId:
      return pointing(table, given, EntryKind::toGroup, action.action_profile_group_id());
    case TableAction::kActionProfileActionSet:
      return oneShot(table, given, names);
    default:
      return direct(table, given);
  }
}

EntryPtr withoutKey(const TablePlan& table, const TableEntry& given, Update::Type type,
                    NamePins* names) {
  if (type == Update::DELETE) {
    EntryPtr entry = Entry::make(table.id, table.keyBytes, 0, 0);
    entry->kind = EntryKind::keyAlone;
    return entry;
  }
  EntryPtr entry = given.has_action() ? withAction(table, given, names)
                                      : made(table, given, EntryKind::keyAlone, 0);
  const std::string& metadata = given.metadata();
  entry->controllerMetadata = given.controller_metadata();
  std::memcpy(entry->metadataData(), metadata.data(), metadata.size());
  return entry;
}

TableEntry withDefaultAction(const TablePlan& table, const TableEntry& given) {
  TableEntry result = given;
  *result.mutable_action()->mutable_action() = table.defaultAction;
  return result;
}

CheckedUpdate defaultEntryUpdate(CheckedUpdate result, const TableEntry& given) {
  EntryPtr entry = withoutKey(*result.table, given, result.type, &result.names);
  *entry->keyData() = 0;
  maybeEncodeParams(*result.table, given, entry.get(), &result.names);
  result.slot.entry = std::move(entry);
  return result;
}

// Where the target keeps no default entries, only the program's own is taken, which changes
// nothing. Where it does, the program's own is back once the entry is deleted.
CheckedUpdate checkedDefaultEntry(const TablePlan& table, const TableEntry& given,
                                  Update::Type type) {
  checkDefaultEntry(table, given, type);
  CheckedUpdate result;
  result.type = Update::MODIFY;
  result.table = table.defaultEntry ? table.defaultEntry.get() : &table;
  const bool isThePrograms = isTheDefault(table, given);
  if (!table.defaultEntry && isThePrograms) return result;
  if (!table.defaultEntry) {
    refuse(code::unimplemented, "table ", table.name,
           ": the default entry cannot be changed: not supported");
  }
  if (given.has_meter_config() || given.has_counter_data()) {
    const char* const resource = given.has_meter_config() ? "meter" : "counter";
    checkDirectResources(tableOfDefaultResources(table, resource), given, type);
    if (const auto counts = givenCounts(given, type)) result.withExtras().counts = counts;
    if (!given.has_action()) {
      requireDefaultAction(table);
      return defaultEntryUpdate(std::move(result), withDefaultAction(table, given));
    }
  } else if (isThePrograms || !given.has_action()) {
    result.type = Update::DELETE;
  }
  return defaultEntryUpdate(std::move(result), given);
}

}  // namespace

CheckedUpdate checkedTableEntry(const P4InfoIndex& index, const TableEntry& given,
                                Update::Type type) {
  CheckedUpdate result;
  result.table = &checkedTable(index, given.table_id());
  const TablePlan& table = *result.table;
  result.profile = table.profile;
  if (given.is_default_action()) {
    requireNotConst(table, given);
    return checkedDefaultEntry(table, given, type);
  }
  checkTable(table, given, type);
  checkFields(table, given, type);
  if (const auto counts = givenCounts(given, type)) result.withExtras().counts = counts;
  if (type != Update::DELETE && given.idle_timeout_ns() != 0) {
    result.withExtras().idleTimeout = given.idle_timeout_ns();
  }
  EntryPtr entry = withoutKey(table, given, type, &result.names);
  entry->priority = checkedPriority(table, given.priority());
  encodeKey(table, given, entry->keyData(), {&result.names, type == Update::INSERT});
  maybeEncodeParams(table, given, entry.get(), &result.names);
  result.slot.entry = std::move(entry);
  return result;
}

const TablePlan* tableOfPlain(const P4InfoIndex& index, const WireUpdate& given) {
  const bool hasType =
      given.type == Update::INSERT || given.type == Update::MODIFY || given.type == Update::DELETE;
  if (!hasType || (given.type == Update::INSERT && !given.hasAction)) return nullptr;
  const TablePlan* table = index.table(given.tableId);
  const bool isPlain = table != nullptr && table->entity == nullptr && !table->isDefaultEntry &&
                       table->profile == nullptr && !table->isConst && table->unsupported.empty() &&
                       !table->fields.empty();
  return isPlain ? table : nullptr;
}

CheckedUpdate checkedTableEntry(const TablePlan& table, const WireUpdate& given) {
  CheckedUpdate result;
  result.table = &table;
  const bool isDelete = given.type == Update::DELETE;
  const ActionPlan* action =
      isDelete || !given.hasAction ? nullptr : &checkedAction(table, given.actionId);
  const std::string_view metadata = isDelete ? std::string_view() : given.metadata;
  EntryPtr entry = Entry::make(table.id, table.keyBytes, action == nullptr ? 0 : action->dataBytes,
                               metadata.size());
  entry->kind = action == nullptr ? EntryKind::keyAlone : EntryKind::action;
  if (action != nullptr) entry->actionId = action->id;
  if (!isDelete) entry->controllerMetadata = given.controllerMetadata;
  std::ranges::copy(metadata, entry->metadataData());
  entry->priority = checkedPriority(table, given.priority);
  encodeKey(table, given.matches, entry->keyData(), {&result.names, given.type == Update::INSERT});
  if (action != nullptr) {
    encodeActionData(table, *action, given.params, entry->actionData(), {&result.names, true});
  }
  result.slot.entry = std::move(entry);
  return result;
}

}  // namespace pi::fe::proto
