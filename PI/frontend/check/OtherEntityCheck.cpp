// Checks of entities that are no table entries: whether the P4Info has them.
#include "PI/frontend/check/OtherEntityCheck.h"

#include <absl/strings/str_cat.h>

#include "PI/frontend/base/Refusal.h"

namespace pi::fe::proto {

using p4::v1::Entity;
using p4::v1::Update;

namespace {

std::string named(const P4InfoIndex& index, const char* kind, uint32_t id) {
  return id == 0 ? absl::StrCat("any ", kind) : index.objectText(id);
}

std::string replicationText(const p4::v1::PacketReplicationEngineEntry& entry) {
  if (entry.has_multicast_group_entry()) {
    return absl::StrCat("multicast group ", entry.multicast_group_entry().multicast_group_id());
  }
  if (entry.has_clone_session_entry()) {
    return absl::StrCat("clone session ", entry.clone_session_entry().session_id());
  }
  return "";
}

// In the controller's own words: "counter ingress.hits", "multicast group 7". Of an entity
// without a member: empty.
std::string entityText(const P4InfoIndex& index, const Entity& entity) {
  switch (entity.entity_case()) {
    case Entity::kExternEntry:
      return named(index, "extern", entity.extern_entry().extern_id());
    case Entity::kMeterEntry:
      return named(index, "meter", entity.meter_entry().meter_id());
    case Entity::kCounterEntry:
      return named(index, "counter", entity.counter_entry().counter_id());
    case Entity::kPacketReplicationEngineEntry:
      return replicationText(entity.packet_replication_engine_entry());
    case Entity::kValueSetEntry:
      return named(index, "value set", entity.value_set_entry().value_set_id());
    case Entity::kRegisterEntry:
      return named(index, "register", entity.register_entry().register_id());
    case Entity::kDigestEntry:
      return named(index, "digest", entity.digest_entry().digest_id());
    default:
      return "";
  }
}

// Cells of an array; id 0 asks a query for all arrays.
void checkCell(const P4InfoIndex& index, const char* kind, uint32_t id, const p4::v1::Index* cell,
               bool isQuery) {
  if (id == 0 && isQuery) return;
  const std::optional<int64_t> size = index.arraySize(kind, id);
  if (id == 0) refuse(code::invalidArgument, "the ", kind, " id is 0");
  if (!size) {
    refuse(code::invalidArgument, "the ", kind, " id is that of ", index.objectText(id));
  }
  if (cell == nullptr) return;
  if (cell->index() < 0) {
    refuse(code::invalidArgument, index.objectText(id), ": the index is ", cell->index(),
           "; it must not be negative");
  }
  if (cell->index() >= *size) {
    refuse(code::outOfRange, index.objectText(id), ": the index is ", cell->index(), "; it has ",
           *size, " cells");
  }
}

template <typename Given>
const p4::v1::Index* cellOf(const Given& given) {
  return given.has_index() ? &given.index() : nullptr;
}

void checkArrays(const P4InfoIndex& index, const Entity& entity, bool isQuery) {
  if (entity.has_counter_entry()) {
    const auto& counter = entity.counter_entry();
    checkCell(index, "counter", counter.counter_id(), cellOf(counter), isQuery);
  }
  if (entity.has_meter_entry()) {
    const auto& meter = entity.meter_entry();
    checkCell(index, "meter", meter.meter_id(), cellOf(meter), isQuery);
  }
  if (entity.has_register_entry()) {
    const auto& cells = entity.register_entry();
    checkCell(index, "register", cells.register_id(), cellOf(cells), isQuery);
  }
}

void requireModify(const P4InfoIndex& index, const Entity& entity, Update::Type type) {
  const bool isArray =
      entity.has_counter_entry() || entity.has_meter_entry() || entity.has_register_entry();
  if (!isArray && !entity.has_value_set_entry()) return;
  if (type == Update::MODIFY) return;
  refuse(code::invalidArgument, entityText(index, entity), " always exists; use MODIFY");
}

void checkReplication(const p4::v1::PacketReplicationEngineEntry& entry) {
  if (entry.has_multicast_group_entry() &&
      entry.multicast_group_entry().multicast_group_id() == 0) {
    refuse(code::invalidArgument, "the multicast group id is 0");
  }
  if (entry.has_clone_session_entry() && entry.clone_session_entry().session_id() == 0) {
    refuse(code::invalidArgument, "the clone session id is 0");
  }
}

// Such entities cannot be written here, so none can be deleted.
void requireNoDelete(const P4InfoIndex& index, const Entity& entity, Update::Type type) {
  if (type != Update::DELETE) return;
  if (!entity.has_packet_replication_engine_entry() && !entity.has_digest_entry()) return;
  refuse(code::notFound, entityText(index, entity), ": there is none");
}

void checkDigest(const P4InfoIndex& index, const Entity& entity, bool isQuery) {
  if (!entity.has_digest_entry()) return;
  const uint32_t id = entity.digest_entry().digest_id();
  if (id == 0 && isQuery) return;
  if (id == 0) refuse(code::invalidArgument, "the digest id is 0");
  if (index.arraySize("digest", id)) return;
  refuse(code::invalidArgument, "the digest id is that of ", index.objectText(id));
}

void checkValueSet(const P4InfoIndex& index, const Entity& entity, bool isQuery) {
  if (!entity.has_value_set_entry()) return;
  const uint32_t id = entity.value_set_entry().value_set_id();
  if (id == 0 && isQuery) return;
  if (id == 0) refuse(code::invalidArgument, "the value set id is 0");
  if (index.arraySize("value set", id)) return;
  refuse(code::invalidArgument, "the value set id is that of ", index.objectText(id));
}

// Whether the query is for all entities of a kind that the device does not have. A query may also
// name a digest: no digest has been started.
bool asksForNothing(const Entity& entity) {
  const auto& replication = entity.packet_replication_engine_entry();
  switch (entity.entity_case()) {
    case Entity::kExternEntry:
      return entity.extern_entry().extern_type_id() == 0 && entity.extern_entry().extern_id() == 0;
    case Entity::kMeterEntry:
      return entity.meter_entry().meter_id() == 0;
    case Entity::kCounterEntry:
      return entity.counter_entry().counter_id() == 0;
    case Entity::kPacketReplicationEngineEntry:
      return replication.has_multicast_group_entry()
                 ? replication.multicast_group_entry().multicast_group_id() == 0
                 : replication.clone_session_entry().session_id() == 0;
    case Entity::kValueSetEntry:
      return entity.value_set_entry().value_set_id() == 0;
    case Entity::kRegisterEntry:
      return entity.register_entry().register_id() == 0;
    default:
      return entity.has_digest_entry();
  }
}

}  // namespace

void checkOtherUpdate(const P4InfoIndex& index, const Entity& entity, Update::Type type) {
  if (entityText(index, entity).empty()) {
    refuse(code::invalidArgument, "the update names no entity");
  }
  checkArrays(index, entity, false);
  requireModify(index, entity, type);
  if (entity.has_packet_replication_engine_entry()) {
    checkReplication(entity.packet_replication_engine_entry());
  }
  checkDigest(index, entity, false);
  checkValueSet(index, entity, false);
}

void refuseOtherUpdate(const P4InfoIndex& index, const Entity& entity, Update::Type type) {
  requireNoDelete(index, entity, type);
  refuse(code::unimplemented, entityText(index, entity), ": writing it is not supported");
}

void checkOtherQuery(const P4InfoIndex& index, const Entity& entity) {
  if (entityText(index, entity).empty()) {
    refuse(code::invalidArgument, "the query names no kind of entity");
  }
  checkArrays(index, entity, true);
  checkDigest(index, entity, true);
  checkValueSet(index, entity, true);
}

void requireNothingAsked(const P4InfoIndex& index, const Entity& entity) {
  if (asksForNothing(entity)) return;
  refuse(code::unimplemented, entityText(index, entity), ": reading it is not supported");
}

}  // namespace pi::fe::proto
