// Digests and idle entries: from the target to the primary's stream.
#include <algorithm>
#include <chrono>

#include "PI/frontend/DeviceMgrImp.h"
#include "PI/frontend/model/PackedData.h"
#include "PI/frontend/store/ActionCodec.h"
#include "PI/frontend/store/EntityRows.h"
#include "PI/frontend/store/KeyCodec.h"

namespace pi::fe::proto {

namespace {

int64_t nowInNanoseconds() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

const p4::config::v1::Digest* digestOf(const p4::config::v1::P4Info& p4Info, uint32_t id) {
  const auto found = std::ranges::find_if(
      p4Info.digests(), [id](const auto& digest) { return digest.preamble().id() == id; });
  return found == p4Info.digests().end() ? nullptr : &*found;
}

// As the controller started it; nothing when none did.
std::optional<DigestConfig> configOf(const Pipeline& pipeline, uint32_t digestId) {
  const EntityPlan* plan = pipeline.index().entity(EntityKind::digest, digestId);
  if (plan == nullptr || plan->table == nullptr) return std::nullopt;
  const std::string key(plan->table->keyBytes, '\0');
  const EntryPtr started = pipeline.store().entry({plan->table->id, 0, key});
  p4::v1::Entity entity;
  if (!started || !readEntity(*plan, *started, &entity)) return std::nullopt;
  return entity.digest_entry().config();
}

}  // namespace

// The target may hold its lock.
pi_status_t DeviceMgrImp::digestMessage(pi_p4_id_t digestId, std::string_view message) try {
  const std::shared_ptr<Pipeline> current = pipeline();
  if (current == nullptr) return PI_STATUS_LEARN_NO_MATCHING_CB;
  const std::optional<DigestConfig> config = configOf(*current, digestId);
  if (!config) {
    digests_.forget(digestId);
    return PI_STATUS_LEARN_NO_MATCHING_CB;
  }
  const auto& p4Info = current->config().p4info();
  const uint32_t bits = digestBits(p4Info, *digestOf(p4Info, digestId));
  if (message.size() != (bits + 7) / 8) return PI_STATUS_BUFFER_ERROR;
  digests_.messageIs(digestId, *config, message);
  return PI_STATUS_SUCCESS;
} catch (const std::bad_alloc&) {
  return PI_STATUS_ALLOC_ERROR;  // a controller may lose digests
}

void DeviceMgrImp::sendDigestList(uint32_t digestId, uint64_t listId,
                                  const std::vector<std::string>& messages) const try {
  const std::shared_ptr<Pipeline> current = pipeline();
  if (current == nullptr) return;
  const auto& p4Info = current->config().p4info();
  const auto* digest = digestOf(p4Info, digestId);
  if (digest == nullptr) return;  // of a former pipeline
  p4::v1::StreamMessageResponse response;
  p4::v1::DigestList& list = *response.mutable_digest();
  list.set_digest_id(digestId);
  list.set_list_id(listId);
  list.set_timestamp(nowInNanoseconds());
  for (const std::string& message : messages) {
    auto data = unpacked(p4Info.type_info(), digest->type_spec(), message);
    if (data) *list.add_data() = *std::move(data);
  }
  if (list.data_size() > 0) sendToPrimaries(&response);
} catch (const std::bad_alloc&) {  // a controller may lose digests
}

// The target may hold its lock.
pi_status_t DeviceMgrImp::entryIdle(pi_p4_id_t tableId, const pi_match_key_t& key) const try {
  const std::shared_ptr<Pipeline> current = pipeline();
  const TablePlan* table = current == nullptr ? nullptr : current->index().table(tableId);
  if (table == nullptr || table->idleTimeouts == nullptr) return PI_STATUS_NETV_INVALID_OBJ_ID;
  const std::string_view bytes(key.data, key.data_size);
  const EntryPtr entry = current->store().entry({tableId, key.priority, bytes});
  const EntryPtr timeout = current->store().entry({table->idleTimeouts->id, key.priority, bytes});
  if (!entry || !timeout) return PI_STATUS_SUCCESS;  // deleted meanwhile
  p4::v1::StreamMessageResponse response;
  auto& notice = *response.mutable_idle_timeout_notification();
  notice.set_timestamp(nowInNanoseconds());
  p4::v1::TableEntry& idle = *notice.add_table_entry();
  idle.set_table_id(tableId);
  decodeKey(*table, entry->keyData(), &idle);
  idle.set_priority(static_cast<int32_t>(entry->priority));
  idle.set_controller_metadata(entry->controllerMetadata);
  idle.set_metadata(entry->metadata().data(), entry->metadata().size());
  idle.set_idle_timeout_ns(idleTimeoutOf(*table->idleTimeouts, *timeout));
  sendToPrimaries(&response);
  return PI_STATUS_SUCCESS;
} catch (const std::bad_alloc&) {
  return PI_STATUS_ALLOC_ERROR;  // a controller may lose notices
}

}  // namespace pi::fe::proto
