// Packs table entries into ReadResponse messages of bounded size.
#include "PI/frontend/EntitySender.h"

#include "PI/frontend/ActionCodec.h"
#include "PI/frontend/KeyCodec.h"

namespace pi::fe::proto {

namespace {
constexpr size_t kMessageBytes = (1 << 20) - 64;
constexpr size_t kFrameBytes = 6;  // tag and length of an entity, at most
}  // namespace

bool EntitySender::entrySent(const TablePlan& table, const Entry& entry) {
  p4::v1::TableEntry* sent = entity_.mutable_table_entry();
  sent->set_table_id(table.id);
  decodeKey(table, entry.keyData(), sent);
  sent->set_priority(static_cast<int32_t>(entry.priority));
  decodeAction(*index_.action(entry.actionId), entry.actionData(),
               sent->mutable_action()->mutable_action());
  sent->set_controller_metadata(entry.controllerMetadata);
  sent->set_metadata(entry.metadata().data(), entry.metadata().size());
  sent->set_is_const(table.isConst);
  return entitySent();
}

bool EntitySender::defaultEntrySent(const TablePlan& table) {
  p4::v1::TableEntry* sent = entity_.mutable_table_entry();
  sent->set_table_id(table.id);
  sent->set_is_default_action(true);
  sent->set_is_const(table.constDefaultActionId != 0);
  if (table.defaultAction.action_id() != 0) {
    *sent->mutable_action()->mutable_action() = table.defaultAction;
  }
  return entitySent();
}

bool EntitySender::entitySent() {
  const size_t bytes = entity_.ByteSizeLong() + kFrameBytes;
  if (responseBytes_ + bytes > kMessageBytes && !restSent()) return false;
  // Swapping keeps the memory of elements already sent in use.
  response_.add_entities()->Swap(&entity_);
  entity_.Clear();
  responseBytes_ += bytes;
  return wanted_;
}

bool EntitySender::restSent() {
  if (wanted_ && response_.entities_size() != 0) wanted_ = sink_(response_);
  response_.Clear();
  responseBytes_ = 0;
  return wanted_;
}

}  // namespace pi::fe::proto
