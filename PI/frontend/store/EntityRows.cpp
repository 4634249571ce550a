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
