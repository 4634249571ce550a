// Entities that are no table entries, as the store keeps them.
#include "PI/frontend/store/EntityRows.h"

#include <algorithm>
#include <cstring>

#include "PI/frontend/base/ByteString.h"
#include "PI/frontend/base/Refusal.h"
#include "PI/frontend/store/KeyCodec.h"
#include "PI/frontend/store/NameCodec.h"

namespace pi::fe::proto {

using p4::v1::Entity;

namespace {

void putNumber(uint64_t value, size_t bytes, uint8_t* out) {
  for (size_t i = 0; i < bytes; ++i) {
    const size_t shift = 8 * (bytes - 1 - i);
    out[i] = static_cast<uint8_t>(shift < 64 ? value >> shift : 0);
  }
}

uint64_t numberAt(const uint8_t* at, size_t bytes) {
  uint64_t value = 0;
  for (size_t i = 0; i < bytes; ++i) value = value << 8 | at[i];
  return value;
}

constexpr size_t kOwnerBytes = 4;  // of the group or session, in front of the keys of replicas

p4::v1::MulticastGroupEntry* groupOf(Entity* entity) {
  return entity->mutable_packet_replication_engine_entry()->mutable_multicast_group_entry();
}

p4::v1::CloneSessionEntry* sessionOf(Entity* entity) {
  return entity->mutable_packet_replication_engine_entry()->mutable_clone_session_entry();
}

uint64_t portNumber(const EntityPlan& plan, const p4::v1::Replica& replica, const Naming& naming) {
  if (replica.has_egress_port()) return replica.egress_port();
  const std::string& port = replica.port();
  if (plan.ports != nullptr) return numberOf(*plan.ports, port, naming, {plan.text, ": a replica"});
  return numberAt(reinterpret_cast<const uint8_t*>(port.data()), port.size());
}

template <typename Replicas>
void addReplicas(const EntityPlan& plan, uint32_t owner, const Replicas& replicas,
                 const Naming& naming, std::vector<std::string>* keys) {
  for (const auto& replica : replicas) {
    std::string& key = keys->emplace_back(12, '\0');
    auto* at = reinterpret_cast<uint8_t*>(key.data());
    putNumber(owner, 4, at);
    putNumber(portNumber(plan, replica, naming), 4, at + 4);
    putNumber(replica.instance(), 4, at + 8);
  }
}

void addMembers(const EntityPlan& plan, const p4::v1::ValueSetEntry& set, const Naming& naming,
                std::vector<std::string>* keys) {
  p4::v1::TableEntry entry;
  for (const auto& member : set.members()) {
    *entry.mutable_match() = member.match();
    std::string& key = keys->emplace_back(plan.list->keyBytes, '\0');
    encodeKey(*plan.list, entry, reinterpret_cast<uint8_t*>(key.data()), naming);
  }
}

Entity::EntityCase caseOf(EntityKind kind) {
  switch (kind) {
    case EntityKind::counter:
      return Entity::kCounterEntry;
    case EntityKind::meter:
      return Entity::kMeterEntry;
    case EntityKind::registerArray:
      return Entity::kRegisterEntry;
    case EntityKind::valueSet:
      return Entity::kValueSetEntry;
    case EntityKind::digest:
      return Entity::kDigestEntry;
    default:
      return Entity::kPacketReplicationEngineEntry;
  }
}

}  // namespace

EntryPtr makeEntity(const TablePlan& table, uint64_t key, const ActionPlan& action,
                    const Entity& entity) {
  const std::string metadata = entity.SerializeAsString();
  EntryPtr entry = Entry::make(table.id, table.keyBytes, action.dataBytes, metadata.size());
  entry->actionId = action.id;
  putNumber(key, table.keyBytes, entry->keyData());
  std::memset(entry->actionData(), 0, action.dataBytes);
  std::memcpy(entry->metadataData(), metadata.data(), metadata.size());
  return entry;
}

void paramIs(const ActionPlan& action, size_t place, uint64_t value, Entry* entry) {
  const ParamPlan& param = action.params[place];
  putNumber(value, param.bytes, entry->actionData() + param.offset);
}

uint64_t paramOf(const ActionPlan& action, size_t place, const Entry& entry) {
  const ParamPlan& param = action.params[place];
  return numberAt(entry.actionData() + param.offset, param.bytes);
}

bool readEntity(const EntityPlan& plan, const Entry& entry, Entity* entity) {
  const std::string_view bytes = entry.metadata();
  return entity->ParseFromArray(bytes.data(), static_cast<int>(bytes.size())) &&
         entity->entity_case() == caseOf(plan.kind);
}

Entity entityOfRow(const TablePlan& table, const Entry& row) {
  const EntityPlan& plan = *table.entity;
  const ActionPlan& action = *table.actionUse(row.actionId)->action;
  const auto param = [&](size_t place) {
    return static_cast<int64_t>(paramOf(action, place, row));
  };
  const auto cellIs = [&](auto* cell) {
    if (!table.isDefaultEntry)
      cell->mutable_index()->set_index(static_cast<int64_t>(cellIndex(row)));
  };
  Entity entity;
  switch (plan.kind) {
    case EntityKind::multicastGroup:
      groupOf(&entity)->set_multicast_group_id(static_cast<uint32_t>(cellIndex(row)));
      break;
    case EntityKind::cloneSession: {
      sessionOf(&entity)->set_session_id(static_cast<uint32_t>(cellIndex(row)));
      sessionOf(&entity)->set_class_of_service(static_cast<uint32_t>(param(0)));
      sessionOf(&entity)->set_packet_length_bytes(static_cast<int32_t>(param(1)));
      break;
    }
    case EntityKind::counter: {
      entity.mutable_counter_entry()->set_counter_id(plan.id);
      cellIs(entity.mutable_counter_entry());
      entity.mutable_counter_entry()->mutable_data()->set_packet_count(param(0));
      entity.mutable_counter_entry()->mutable_data()->set_byte_count(param(1));
      break;
    }
    case EntityKind::meter: {
      entity.mutable_meter_entry()->set_meter_id(plan.id);
      cellIs(entity.mutable_meter_entry());
      if (action.params.empty()) break;  // the cell has no setting
      p4::v1::MeterConfig& config = *entity.mutable_meter_entry()->mutable_config();
      config.set_cir(param(0));
      config.set_cburst(param(1));
      config.set_pir(param(2));
      config.set_pburst(param(3));
      config.set_eburst(param(4));
      break;
    }
    case EntityKind::registerArray: {
      entity.mutable_register_entry()->set_register_id(plan.id);
      cellIs(entity.mutable_register_entry());
      p4::v1::P4Data& data = *entity.mutable_register_entry()->mutable_data();
      const ParamPlan& value = action.params.front();
      if (plan.isBool) {
        data.set_bool_(param(0) != 0);
      } else {
        setShortest(row.actionData() + value.offset, value.bytes, data.mutable_bitstring());
      }
      break;
    }
    case EntityKind::valueSet:
      entity.mutable_value_set_entry()->set_value_set_id(plan.id);
      break;
    default: {
      entity.mutable_digest_entry()->set_digest_id(plan.id);
      p4::v1::DigestEntry::Config& config = *entity.mutable_digest_entry()->mutable_config();
      config.set_max_timeout_ns(param(0));
      config.set_max_list_size(static_cast<int32_t>(param(1)));
      config.set_ack_timeout_ns(param(2));
    }
  }
  return entity;
}

EntryPtr withEntity(const Entry& row, const Entity& entity) {
  const std::string metadata = entity.SerializeAsString();
  const EntryKey key = row.key();
  EntryPtr entry = Entry::make(key.tableId, key.bytes.size(), row.actionSize(), metadata.size());
  entry->priority = key.priority;
  entry->handle = row.handle;
  entry->actionId = row.actionId;
  entry->isConst = row.isConst;
  std::memcpy(entry->keyData(), key.bytes.data(), key.bytes.size());
  std::memcpy(entry->actionData(), row.actionData(), row.actionSize());
  std::memcpy(entry->metadataData(), metadata.data(), metadata.size());
  return entry;
}

bool isOf(const EntityPlan& plan, const Entry& listRow, const Entry& row) {
  if (plan.kind == EntityKind::valueSet) return true;
  return std::memcmp(listRow.keyData(), row.keyData(), kOwnerBytes) == 0;
}

void addListRow(const EntityPlan& plan, const Entry& listRow, Entity* entity) {
  if (plan.kind == EntityKind::valueSet) {
    p4::v1::TableEntry entry;
    decodeKey(*plan.list, listRow.keyData(), &entry);
    *entity->mutable_value_set_entry()->add_members()->mutable_match() = entry.match();
    return;
  }
  p4::v1::Replica& replica = plan.kind == EntityKind::multicastGroup
                                 ? *groupOf(entity)->add_replicas()
                                 : *sessionOf(entity)->add_replicas();
  const uint8_t* const port = listRow.keyData() + kOwnerBytes;
  const auto number = static_cast<uint32_t>(numberAt(port, 4));
  if (plan.ports != nullptr) {
    replica.set_port(plan.ports->name(number));
  } else {
    setShortest(port, 4, replica.mutable_port());
  }
  replica.set_instance(static_cast<uint32_t>(numberAt(port + 4, 4)));
}

std::vector<std::string> listKeys(const EntityPlan& plan, const Entity& entity,
                                  const Naming& naming) {
  std::vector<std::string> keys;
  const auto& replication = entity.packet_replication_engine_entry();
  if (plan.kind == EntityKind::multicastGroup) {
    const auto& group = replication.multicast_group_entry();
    addReplicas(plan, group.multicast_group_id(), group.replicas(), naming, &keys);
  } else if (plan.kind == EntityKind::cloneSession) {
    const auto& session = replication.clone_session_entry();
    addReplicas(plan, session.session_id(), session.replicas(), naming, &keys);
  } else if (plan.kind == EntityKind::valueSet) {
    addMembers(plan, entity.value_set_entry(), naming, &keys);
  }
  return keys;
}

EntryPtr makeListRow(const TablePlan& list, const std::string& key) {
  EntryPtr entry = Entry::make(list.id, key.size(), 0, 0);
  entry->actionId = list.actions.front().id;
  entry->priority = list.needsPriority ? 1 : 0;
  std::memcpy(entry->keyData(), key.data(), key.size());
  return entry;
}

EntryPtr makeIdleTimeout(const TablePlan& timeouts, const Entry& entry, int64_t ns) {
  const ActionPlan& action = *timeouts.actions.front().action;
  const EntryKey key = entry.key();
  EntryPtr row = Entry::make(timeouts.id, key.bytes.size(), action.dataBytes, 0);
  row->actionId = action.id;
  row->priority = key.priority;
  std::memcpy(row->keyData(), key.bytes.data(), key.bytes.size());
  paramIs(action, 0, static_cast<uint64_t>(ns), row.get());
  return row;
}

int64_t idleTimeoutOf(const TablePlan& timeouts, const Entry& row) {
  return static_cast<int64_t>(paramOf(*timeouts.actions.front().action, 0, row));
}

uint64_t cellIndex(const Entry& cell) { return numberAt(cell.keyData(), cell.key().bytes.size()); }

std::string entityKeyText(const TablePlan& table, const uint8_t* key) {
  const EntityPlan& plan = *table.entity;
  if (plan.isArray()) {
    if (table.isDefaultEntry) return absl::StrCat(plan.text, ": all cells");
    return absl::StrCat(plan.text, ": cell ", numberAt(key, table.keyBytes));
  }
  if (plan.id != 0) return plan.text;
  return absl::StrCat(plan.text, " ", numberAt(key, 4));
}

}  // namespace pi::fe::proto
