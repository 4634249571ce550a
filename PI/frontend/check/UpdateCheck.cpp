// One update of a Write, checked against the P4Info and encoded for the target.
#include "PI/frontend/check/UpdateCheck.h"

#include "PI/frontend/base/Refusal.h"
#include "PI/frontend/check/DirectResourceCheck.h"
#include "PI/frontend/check/EntityCheck.h"
#include "PI/frontend/check/ProfileCheck.h"
#include "PI/frontend/check/TableEntryCheck.h"

namespace pi::fe::proto {

using p4::v1::Entity;
using p4::v1::Update;

namespace {

void checkType(Update::Type type) {
  if (type == Update::INSERT || type == Update::MODIFY || type == Update::DELETE) return;
  refuse(code::invalidArgument, "the update's type is ", static_cast<int>(type),
         "; it must be INSERT, MODIFY or DELETE");
}

CheckedUpdate checkedEntity(const P4InfoIndex& index, const Entity& entity, Update::Type type) {
  switch (entity.entity_case()) {
    case Entity::kTableEntry:
      return checkedTableEntry(index, entity.table_entry(), type);
    case Entity::kActionProfileMember:
      return checkedMember(index, entity.action_profile_member(), type);
    case Entity::kActionProfileGroup:
      return checkedGroup(index, entity.action_profile_group(), type);
    case Entity::kDirectMeterEntry:
      return checkedDirectMeter(index, entity.direct_meter_entry(), type);
    case Entity::kDirectCounterEntry:
      return checkedDirectCounter(index, entity.direct_counter_entry(), type);
    default:
      return checkedEntityUpdate(index, entity, type);
  }
}

}  // namespace

CheckedUpdate checkedUpdate(const P4InfoIndex& index, const Update& update) {
  checkType(update.type());
  CheckedUpdate result = checkedEntity(index, update.entity(), update.type());
  if (result.type == Update::UNSPECIFIED) result.type = update.type();
  if (result.slot.entry) result.slot.hash = result.slot.entry->key().hash();
  return result;
}

CheckedUpdate checkedUpdate(const TablePlan& table, const WireUpdate& update) {
  CheckedUpdate result = checkedTableEntry(table, update);
  result.type = update.type;
  result.slot.hash = result.slot.entry->key().hash();
  return result;
}

}  // namespace pi::fe::proto
