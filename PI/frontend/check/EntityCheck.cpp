// Updates of entities that are no table entries.
#include "PI/frontend/check/EntityCheck.h"

#include <absl/container/flat_hash_set.h>

#include <utility>

#include "PI/frontend/base/ByteString.h"
#include "PI/frontend/base/Refusal.h"
#include "PI/frontend/check/MeterCheck.h"
#include "PI/frontend/check/OtherEntityCheck.h"
#include "PI/frontend/store/EntityRows.h"
#include "PI/frontend/store/NameCodec.h"
#include "PI/target/pi_extensions_imp.h"

namespace pi::fe::proto {

using p4::v1::Entity;
using p4::v1::Update;

namespace {

constexpr size_t kPortOffset = 4;           // in the keys of replicas, behind the owner
constexpr size_t kMostBytes = 1024 * 1024;  // of a message; the store keeps it with the row

const ActionPlan& actionOf(const TablePlan& table, size_t place = 0) {
  return *table.actions[place].action;
}

void requireRoom(const EntityPlan& plan, uint32_t id, const Entity& entity) {
  const size_t bytes = entity.ByteSizeLong();
  if (bytes <= kMostBytes) return;
  refuse(code::resourceExhausted, plan.text, id == 0 ? "" : absl::StrCat(" ", id), ": it has ",
         bytes, " bytes as a message; ", kMostBytes, " is the most");
}

CheckedUpdate updateOf(const EntityPlan& plan, uint64_t key, const ActionPlan& action,
                       const Entity& entity) {
  CheckedUpdate result;
  result.table = plan.table;
  result.slot.entry = makeEntity(*plan.table, key, action, entity);
  return result;
}

// Ports of controllers: names, or numbers of 32 bits.
void checkPort(const EntityPlan& plan, const std::string& owner, const p4::v1::Replica& replica) {
  if (replica.has_egress_port()) return;
  const std::string& port = replica.port();
  if (port.empty()) {
    refuse(code::invalidArgument, owner, ": a replica has no port; set port or egress_port");
  }
  if (plan.ports != nullptr || fits(port, kEntityIdBits)) return;
  refuse(code::invalidArgument, owner, ": the port ", hexText(port), " of a replica is wider than ",
         kEntityIdBits, " bits");
}

template <typename Replicas>
void checkReplicas(const EntityPlan& plan, uint32_t id, Replicas* replicas) {
  const std::string owner = absl::StrCat(plan.text, " ", id);
  for (p4::v1::Replica& replica : *replicas) {
    checkPort(plan, owner, replica);
    if (plan.ports == nullptr && !replica.port().empty()) shorten(replica.mutable_port());
    if (!replica.backup_replicas().empty()) {
      refuse(code::unimplemented, owner, ": backup replicas are not supported");
    }
  }
}

void requirePort(const EntityPlan& plan, uint32_t id, const std::string& key) {
  const uint32_t port = numberAt(reinterpret_cast<const uint8_t*>(key.data()) + kPortOffset);
  if (_pi_port_exists(port) != 0) return;
  refuse(code::invalidArgument, plan.text, " ", id, ": the switch has no port ",
         plan.ports != nullptr && plan.ports->hasName(port) ? quotedName(plan.ports->name(port))
                                                            : absl::StrCat(port),
         ", which a replica names");
}

void requireDistinctReplicas(const EntityPlan& plan, uint32_t id, const Entity& entity,
                             NamePins* names) {
  absl::flat_hash_set<std::string> seen;
  for (std::string& key : listKeys(plan, entity, {names, true})) {
    requirePort(plan, id, key);
    if (seen.insert(std::move(key)).second) continue;
    refuse(code::invalidArgument, plan.text, " ", id,
           ": two replicas have the same port and instance");
  }
}

CheckedUpdate checkedGroup(const EntityPlan& plan, const Entity& given, Update::Type type) {
  Entity entity = given;
  auto& group = *entity.mutable_packet_replication_engine_entry()->mutable_multicast_group_entry();
  const uint32_t id = group.multicast_group_id();
  NamePins names;
  if (type != Update::DELETE) {
    checkReplicas(plan, id, group.mutable_replicas());
    requireRoom(plan, id, entity);
    requireDistinctReplicas(plan, id, entity, &names);
  }
  CheckedUpdate result = updateOf(plan, id, actionOf(*plan.table), entity);
  result.names = std::move(names);
  return result;
}

CheckedUpdate checkedSession(const EntityPlan& plan, const Entity& given, Update::Type type) {
  Entity entity = given;
  auto& session = *entity.mutable_packet_replication_engine_entry()->mutable_clone_session_entry();
  const uint32_t id = session.session_id();
  NamePins names;
  if (type != Update::DELETE) {
    if (session.packet_length_bytes() < 0) {
      refuse(code::invalidArgument, plan.text, " ", id, ": packet_length_bytes is ",
             session.packet_length_bytes(), "; 0 keeps packets whole");
    }
    checkReplicas(plan, id, session.mutable_replicas());
    requireRoom(plan, id, entity);
    requireDistinctReplicas(plan, id, entity, &names);
  }
  const ActionPlan& action = actionOf(*plan.table);
  CheckedUpdate result = updateOf(plan, id, action, entity);
  paramIs(action, 0, session.class_of_service(), result.slot.entry.get());
  paramIs(action, 1, static_cast<uint64_t>(session.packet_length_bytes()), result.slot.entry.get());
  return result;
}

// Of one cell, or of all when no index is given.
CheckedUpdate cellUpdate(const EntityPlan& plan, const p4::v1::Index* cell,
                         const ActionPlan& action, const Entity& entity) {
  if (cell != nullptr) return updateOf(plan, static_cast<uint64_t>(cell->index()), action, entity);
  if (plan.table->defaultEntry == nullptr) {
    refuse(code::unimplemented, plan.text,
           ": writing all cells at once is not supported with this program; write them one by one");
  }
  CheckedUpdate result;
  result.table = plan.table->defaultEntry.get();
  result.ofAllCells = true;
  result.slot.entry = makeEntity(*result.table, 0, action, entity);
  return result;
}

template <typename Given>
const p4::v1::Index* cellOf(const Given& given) {
  return given.has_index() ? &given.index() : nullptr;
}

CheckedUpdate checkedCounter(const EntityPlan& plan, const Entity& entity) {
  const auto& given = entity.counter_entry();
  if (!given.has_data()) return {};  // nothing changes
  const auto& data = given.data();
  if (data.byte_count() < 0 || data.packet_count() < 0) {
    refuse(code::invalidArgument, plan.text, ": a count is negative");
  }
  const ActionPlan& action = actionOf(*plan.table);
  CheckedUpdate result = cellUpdate(plan, cellOf(given), action, entity);
  paramIs(action, 0, static_cast<uint64_t>(data.packet_count()), result.slot.entry.get());
  paramIs(action, 1, static_cast<uint64_t>(data.byte_count()), result.slot.entry.get());
  return result;
}

// Without a setting, the cell has none, whatever the others have; all cells have none without rows.
CheckedUpdate checkedMeter(const EntityPlan& plan, const Entity& entity) {
  const auto& given = entity.meter_entry();
  if (given.has_counter_data()) refuseColors(plan.text, given.counter_data(), "counter_data");
  if (!given.has_config()) {
    CheckedUpdate result = cellUpdate(plan, cellOf(given), actionOf(*plan.table, 1), entity);
    if (result.ofAllCells) result.type = Update::DELETE;
    return result;
  }
  checkMeterConfig(plan.text, plan.meterType, given.config());
  const ActionPlan& action = actionOf(*plan.table);
  CheckedUpdate result = cellUpdate(plan, cellOf(given), action, entity);
  const auto& config = given.config();
  const int64_t values[] = {config.cir(), config.cburst(), config.pir(), config.pburst(),
                            config.eburst()};
  for (size_t i = 0; i < std::size(values); ++i) {
    paramIs(action, i, static_cast<uint64_t>(values[i]), result.slot.entry.get());
  }
  return result;
}

CheckedUpdate checkedRegister(const EntityPlan& plan, const Entity& given) {
  Entity entity = given;
  auto& data = *entity.mutable_register_entry()->mutable_data();
  const ActionPlan& action = actionOf(*plan.table);
  const ParamPlan& value = action.params[0];
  if (plan.isBool ? !data.has_bool_() : !data.has_bitstring()) {
    refuse(code::invalidArgument, plan.text, ": give the value as a ",
           plan.isBool ? "bool" : "bitstring");
  }
  if (!plan.isBool) {
    if (!fits(data.bitstring(), value.bits)) {
      refuse(code::invalidArgument, plan.text, ": the value ", hexText(data.bitstring()),
             " is not a number of ", value.bits, " bits");
    }
    shorten(data.mutable_bitstring());
  }
  CheckedUpdate result = cellUpdate(plan, cellOf(given.register_entry()), action, entity);
  if (plan.isBool) {
    paramIs(action, 0, data.bool_() ? 1 : 0, result.slot.entry.get());
  } else {
    putPadded(data.bitstring(), result.slot.entry->actionData() + value.offset, value.bytes);
  }
  return result;
}

void checkMembers(const EntityPlan& plan, const Entity& entity, NamePins* names) {
  const int count = entity.value_set_entry().members_size();
  if (plan.size > 0 && count > plan.size) {
    refuse(code::resourceExhausted, plan.text, ": ", count, " members are given; it has room for ",
           plan.size);
  }
  absl::flat_hash_set<std::string> seen;
  for (std::string& key : listKeys(plan, entity, {names, true})) {
    if (seen.insert(std::move(key)).second) continue;
    refuse(code::alreadyExists, plan.text, ": a member is given twice");
  }
}

void makeCanonical(const TablePlan& list, p4::v1::FieldMatch* match) {
  for (const FieldPlan& field : list.fields) {
    if (field.id == match->field_id() && field.names != nullptr) return;
  }
  if (match->has_exact()) shorten(match->mutable_exact()->mutable_value());
  if (match->has_lpm()) shorten(match->mutable_lpm()->mutable_value());
  if (match->has_optional()) shorten(match->mutable_optional()->mutable_value());
  if (match->has_ternary()) {
    shorten(match->mutable_ternary()->mutable_value());
    shorten(match->mutable_ternary()->mutable_mask());
  }
  if (match->has_range()) {
    shorten(match->mutable_range()->mutable_low());
    shorten(match->mutable_range()->mutable_high());
  }
}

// The given members are the whole set; without any it is as it was in the beginning.
CheckedUpdate checkedValueSet(const EntityPlan& plan, const Entity& given) {
  NamePins names;
  checkMembers(plan, given, &names);
  Entity entity = given;
  for (auto& member : *entity.mutable_value_set_entry()->mutable_members()) {
    for (auto& match : *member.mutable_match()) makeCanonical(*plan.list, &match);
  }
  requireRoom(plan, 0, entity);
  const ActionPlan& action = actionOf(*plan.table);
  CheckedUpdate result = updateOf(plan, 0, action, entity);
  const int count = given.value_set_entry().members_size();
  paramIs(action, 0, static_cast<uint64_t>(count), result.slot.entry.get());
  if (count == 0) result.type = Update::DELETE;
  result.names = std::move(names);
  return result;
}

CheckedUpdate checkedDigest(const EntityPlan& plan, const Entity& entity, Update::Type type) {
  const auto& config = entity.digest_entry().config();
  if (type != Update::DELETE &&
      (config.max_timeout_ns() < 0 || config.max_list_size() < 0 || config.ack_timeout_ns() < 0)) {
    refuse(code::invalidArgument, plan.text, ": a time-out or the size of its lists is negative");
  }
  const ActionPlan& action = actionOf(*plan.table);
  CheckedUpdate result = updateOf(plan, 0, action, entity);
  paramIs(action, 0, static_cast<uint64_t>(config.max_timeout_ns()), result.slot.entry.get());
  paramIs(action, 1, static_cast<uint64_t>(config.max_list_size()), result.slot.entry.get());
  paramIs(action, 2, static_cast<uint64_t>(config.ack_timeout_ns()), result.slot.entry.get());
  return result;
}

bool isKept(const EntityPlan* plan) {
  return plan != nullptr && plan->table != nullptr && plan->table->unsupported.empty() &&
         (plan->list == nullptr || plan->list->unsupported.empty());
}

}  // namespace

const EntityPlan* entityPlan(const P4InfoIndex& index, const Entity& entity) {
  const EntityPlan* plan = nullptr;
  switch (entity.entity_case()) {
    case Entity::kPacketReplicationEngineEntry:
      plan = index.entity(entity.packet_replication_engine_entry().has_multicast_group_entry()
                              ? EntityKind::multicastGroup
                              : EntityKind::cloneSession);
      break;
    case Entity::kCounterEntry:
      plan = index.entity(EntityKind::counter, entity.counter_entry().counter_id());
      break;
    case Entity::kMeterEntry:
      plan = index.entity(EntityKind::meter, entity.meter_entry().meter_id());
      break;
    case Entity::kRegisterEntry:
      plan = index.entity(EntityKind::registerArray, entity.register_entry().register_id());
      break;
    case Entity::kValueSetEntry:
      plan = index.entity(EntityKind::valueSet, entity.value_set_entry().value_set_id());
      break;
    case Entity::kDigestEntry:
      plan = index.entity(EntityKind::digest, entity.digest_entry().digest_id());
      break;
    default:
      break;
  }
  return isKept(plan) ? plan : nullptr;
}

CheckedUpdate checkedEntityUpdate(const P4InfoIndex& index, const Entity& entity,
                                  Update::Type type) {
  checkOtherUpdate(index, entity, type);
  const EntityPlan* plan = entityPlan(index, entity);
  if (plan == nullptr) refuseOtherUpdate(index, entity, type);
  switch (plan->kind) {
    case EntityKind::multicastGroup:
      return checkedGroup(*plan, entity, type);
    case EntityKind::cloneSession:
      return checkedSession(*plan, entity, type);
    case EntityKind::counter:
      return checkedCounter(*plan, entity);
    case EntityKind::meter:
      return checkedMeter(*plan, entity);
    case EntityKind::registerArray:
      return checkedRegister(*plan, entity);
    case EntityKind::valueSet:
      return checkedValueSet(*plan, entity);
    default:
      return checkedDigest(*plan, entity, type);
  }
}

}  // namespace pi::fe::proto
