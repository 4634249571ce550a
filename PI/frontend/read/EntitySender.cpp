// Packs table entries, members and groups into ReadResponse messages of bounded size.
#include "PI/frontend/read/EntitySender.h"

#include "PI/frontend/store/ActionCodec.h"
#include "PI/frontend/store/KeyCodec.h"
#include "PI/frontend/store/ProfileObjects.h"

namespace pi::fe::proto {

namespace {
constexpr size_t kMessageBytes = 32 * 1024;
constexpr size_t kFrameBytes = 6;  // tag and length of an entity, at most

void settingIs(const MeterSetting& setting, p4::v1::MeterConfig* sent) {
  sent->set_cir(static_cast<int64_t>(setting.cir));
  sent->set_pir(static_cast<int64_t>(setting.pir));
  sent->set_cburst(setting.cburst);
  sent->set_pburst(setting.pburst);
}

}  // namespace

bool EntitySender::sendEntry(const TablePlan& table, const Entry& entry, EntryForm form,
                             const Told& told) {
  if (form == EntryForm::counter) {
    keyIs(table, entry, entity_.mutable_direct_counter_entry()->mutable_table_entry());
    *entity_.mutable_direct_counter_entry()->mutable_data() = told.count;
    return addEntity();
  }
  const std::optional<MeterSetting> meter = entry.meter();
  if (form == EntryForm::meter) {
    keyIs(table, entry, entity_.mutable_direct_meter_entry()->mutable_table_entry());
    if (meter) settingIs(*meter, entity_.mutable_direct_meter_entry()->mutable_config());
    return addEntity();
  }
  p4::v1::TableEntry* sent = entity_.mutable_table_entry();
  keyIs(table, entry, sent);
  actionIs(entry, sent->mutable_action());
  sent->set_controller_metadata(entry.controllerMetadata);
  sent->set_metadata(entry.metadata().data(), entry.metadata().size());
  sent->set_is_const(table.isConst || entry.isConst);
  sent->set_idle_timeout_ns(told.idleTimeout);
  if (hasCounter(form)) *sent->mutable_counter_data() = told.count;
  if (hasMeter(form) && meter) settingIs(*meter, sent->mutable_meter_config());
  if (hasLastHit(form) && told.sinceLastHit) {
    sent->mutable_time_since_last_hit()->set_elapsed_ns(*told.sinceLastHit);
  }
  return addEntity();
}

void EntitySender::keyIs(const TablePlan& table, const Entry& entry,
                         p4::v1::TableEntry* sent) const {
  sent->set_table_id(table.id);
  decodeKey(table, entry.keyData(), sent);
  sent->set_priority(static_cast<int32_t>(entry.priority));
}

void EntitySender::actionIs(const Entry& entry, p4::v1::TableAction* sent) const {
  switch (entry.kind) {
    case EntryKind::toMember:
      return sent->set_action_profile_member_id(reference(entry).id);
    case EntryKind::toGroup:
      return sent->set_action_profile_group_id(reference(entry).id);
    case EntryKind::actionSet:
      *sent->mutable_action_profile_action_set() = actionSet(entry);
      for (auto& element :
           *sent->mutable_action_profile_action_set()->mutable_action_profile_actions()) {
        answerParamsAre(*index_.action(element.action().action_id()), element.mutable_action());
      }
      return;
    default:
      decodeAction(*index_.action(entry.actionId), entry.actionData(), sent->mutable_action());
  }
}

bool EntitySender::sendObject(const Entry& object) {
  if (object.kind == EntryKind::groupObject) {
    *entity_.mutable_action_profile_group() = group(object);
    return addEntity();
  }
  p4::v1::ActionProfileMember* sent = entity_.mutable_action_profile_member();
  const ObjectId id = objectId(object);
  sent->set_action_profile_id(id.profileId);
  sent->set_member_id(id.id);
  decodeAction(*index_.action(object.actionId), object.actionData(), sent->mutable_action());
  return addEntity();
}

bool EntitySender::sendDefaultEntry(const TablePlan& table, const Entry* written, EntryForm form,
                                    const p4::v1::CounterData& count) {
  const auto meter = written == nullptr ? std::nullopt : written->meter();
  const auto keyIs = [&](p4::v1::TableEntry* key) {
    key->set_table_id(table.id);
    key->set_is_default_action(true);
  };
  if (form == EntryForm::counter) {
    keyIs(entity_.mutable_direct_counter_entry()->mutable_table_entry());
    *entity_.mutable_direct_counter_entry()->mutable_data() = count;
    return addEntity();
  }
  if (form == EntryForm::meter) {
    keyIs(entity_.mutable_direct_meter_entry()->mutable_table_entry());
    if (meter) settingIs(*meter, entity_.mutable_direct_meter_entry()->mutable_config());
    return addEntity();
  }
  p4::v1::TableEntry* sent = entity_.mutable_table_entry();
  keyIs(sent);
  if (hasCounter(form)) *sent->mutable_counter_data() = count;
  if (hasMeter(form) && meter) settingIs(*meter, sent->mutable_meter_config());
  sent->set_is_const(table.constDefaultActionId != 0);
  if (written != nullptr) {
    actionIs(*written, sent->mutable_action());
    sent->set_controller_metadata(written->controllerMetadata);
    sent->set_metadata(written->metadata().data(), written->metadata().size());
  } else if (table.defaultAction.action_id() != 0) {
    *sent->mutable_action()->mutable_action() = table.defaultAction;
    answerParamsAre(*index_.action(table.defaultAction.action_id()),
                    sent->mutable_action()->mutable_action());
  }
  return addEntity();
}

bool EntitySender::sendEntity(p4::v1::Entity* entity) {
  entity_.Swap(entity);
  return addEntity();
}

bool EntitySender::addEntity() {
  const size_t bytes = entity_.ByteSizeLong() + kFrameBytes;
  const bool isFull = responseBytes_ != 0 && responseBytes_ + bytes > kMessageBytes;
  if (isFull && !sendMessage()) return false;
  // Swapping keeps the memory of elements already sent in use.
  response_.add_entities()->Swap(&entity_);
  entity_.Clear();
  responseBytes_ += bytes;
  return wanted_;
}

bool EntitySender::sendRest() {
  if (anySent_ && response_.entities_size() == 0) return wanted_;
  return sendMessage();
}

bool EntitySender::sendMessage() {
  if (wanted_) wanted_ = sink_(response_);
  anySent_ = true;
  response_.Clear();
  responseBytes_ = 0;
  return wanted_;
}

}  // namespace pi::fe::proto
