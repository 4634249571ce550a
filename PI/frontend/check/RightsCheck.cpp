#include "PI/frontend/check/RightsCheck.h"

#include "PI/frontend/base/Refusal.h"

namespace pi::fe::proto {

namespace {

using p4::v1::Entity;
using Kind = EntityObject::Kind;

EntityObject objectOf(const Entity& entity) {
  switch (entity.entity_case()) {
    case Entity::kTableEntry:
      return {Kind::ofP4Info, entity.table_entry().table_id()};
    case Entity::kDirectCounterEntry:
      return {Kind::ofP4Info, entity.direct_counter_entry().table_entry().table_id()};
    case Entity::kDirectMeterEntry:
      return {Kind::ofP4Info, entity.direct_meter_entry().table_entry().table_id()};
    case Entity::kActionProfileMember:
      return {Kind::ofP4Info, entity.action_profile_member().action_profile_id()};
    case Entity::kActionProfileGroup:
      return {Kind::ofP4Info, entity.action_profile_group().action_profile_id()};
    case Entity::kCounterEntry:
      return {Kind::ofP4Info, entity.counter_entry().counter_id()};
    case Entity::kMeterEntry:
      return {Kind::ofP4Info, entity.meter_entry().meter_id()};
    case Entity::kRegisterEntry:
      return {Kind::ofP4Info, entity.register_entry().register_id()};
    case Entity::kDigestEntry:
      return {Kind::ofP4Info, entity.digest_entry().digest_id()};
    case Entity::kValueSetEntry:
      return {Kind::ofP4Info, entity.value_set_entry().value_set_id()};
    case Entity::kExternEntry:
      return {Kind::ofP4Info, entity.extern_entry().extern_id()};
    case Entity::kPacketReplicationEngineEntry: {
      const auto& engine = entity.packet_replication_engine_entry();
      if (engine.has_multicast_group_entry()) {
        return {Kind::multicastGroups, engine.multicast_group_entry().multicast_group_id()};
      }
      return {Kind::cloneSessions, engine.clone_session_entry().session_id()};
    }
    default:
      return {};
  }
}

std::string objectText(const P4InfoIndex& index, const EntityObject& object) {
  if (object.kind == Kind::multicastGroups) return "multicast groups";
  if (object.kind == Kind::cloneSessions) return "clone sessions";
  return index.objectText(object.id);
}

void requireRight(const P4InfoIndex& index, const EntityRights& rights, EntityUse use,
                  const EntityObject& object) {
  if (object.kind == Kind::ofP4Info && object.id == 0) return;
  if (rights.permits(use, object)) return;
  throw Refusal(code::permissionDenied, rights.refusal(use, object, objectText(index, object)));
}

}  // namespace

EntityObject objectOf(const EntityPlan& plan) {
  switch (plan.kind) {
    case EntityKind::multicastGroup:
      return {Kind::multicastGroups, 0};
    case EntityKind::cloneSession:
      return {Kind::cloneSessions, 0};
    default:
      return {Kind::ofP4Info, plan.id};
  }
}

void requireWriteRight(const P4InfoIndex& index, const EntityRights& rights, const Entity& entity) {
  requireRight(index, rights, EntityUse::write, objectOf(entity));
}

void requireWriteRight(const P4InfoIndex& index, const EntityRights& rights, uint32_t objectId) {
  requireRight(index, rights, EntityUse::write, {Kind::ofP4Info, objectId});
}

// A Read of all groups or sessions names none, and is answered with none.
void requireReadRight(const P4InfoIndex& index, const EntityRights& rights, const Entity& entity) {
  const EntityObject object = objectOf(entity);
  if (object.id != 0) requireRight(index, rights, EntityUse::read, object);
}

}  // namespace pi::fe::proto
