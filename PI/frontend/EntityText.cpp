// Names for what a controller may ask for, in its own words.
#include "PI/frontend/EntityText.h"

#include "absl/strings/str_cat.h"

namespace pi::fe::proto {

using p4::v1::Entity;

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

}  // namespace

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

}  // namespace pi::fe::proto
