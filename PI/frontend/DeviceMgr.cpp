// The front end as the server sees it.
#include "PI/frontends/proto/device_mgr.h"

#include "PI/frontend/DeviceMgrImp.h"
#include "PI/frontend/base/Lenience.h"
#include "PI/frontend/base/Permission.h"
#include "PI/pi.h"

namespace pi::fe::proto {

void DeviceMgr::init(size_t max_devices) { pi_init(max_devices, nullptr); }

void DeviceMgr::destroy() { pi_destroy(); }

void DeviceMgr::set_operation_permission_level(pi_operation_permission_level_t level) {
  operationPermissionLevelIs(level);
}

pi_operation_permission_level_t DeviceMgr::get_operation_permission_level() {
  return operationPermissionLevel();
}

void DeviceMgr::set_pipeline_changing(bool is_changing) { pipelineChangingIs(is_changing); }

void DeviceMgr::set_zero_weights_allowed(bool allowed) { zeroWeightsAllowedIs(allowed); }
void DeviceMgr::set_both_counts_read(bool both) { bothCountsReadIs(both); }
void DeviceMgr::set_answers_padded(bool padded) { answersPaddedIs(padded); }

DeviceMgr::DeviceMgr(pi_dev_id_t device_id) : imp_(std::make_unique<DeviceMgrImp>(device_id)) {}

DeviceMgr::~DeviceMgr() = default;

DeviceMgr::Status DeviceMgr::pipeline_config_set(
    p4::v1::SetForwardingPipelineConfigRequest::Action action,
    const p4::v1::ForwardingPipelineConfig& config) {
  return imp_->pipelineConfigSet(action, config);
}

DeviceMgr::Status DeviceMgr::pipeline_config_push(
    pi_dev_id_t device_id, p4::v1::SetForwardingPipelineConfigRequest::Action action,
    const p4::v1::ForwardingPipelineConfig* config) {
  return DeviceMgrImp::pipelineConfigPush(device_id, action, config);
}

void DeviceMgr::pipeline_config_given_changed() { imp_->handleGivenChanged(); }

DeviceMgr::Status DeviceMgr::pipeline_config_get(
    p4::v1::GetForwardingPipelineConfigRequest::ResponseType type,
    p4::v1::ForwardingPipelineConfig* config) {
  return imp_->pipelineConfig(type, config);
}

bool DeviceMgr::has_pipeline() const { return imp_->hasPipeline(); }

DeviceMgr::Status DeviceMgr::write(const p4::v1::WriteRequest& request, const Admit& admit,
                                   const EntityCaller* caller) {
  return imp_->write(request, admit, caller);
}

DeviceMgr::Status DeviceMgr::write(const p4::v1::WriteRequest& header, const WriteUpdates& updates,
                                   const Admit& admit, const EntityCaller* caller) {
  return imp_->write(header, updates, admit, caller);
}

DeviceMgr::Status DeviceMgr::read(const p4::v1::ReadRequest& request,
                                  p4::v1::ReadResponse* response) const {
  const ReadSink merge = [&](const p4::v1::ReadResponse& part) {
    response->MergeFrom(part);
    return true;
  };
  return imp_->read(request, merge);
}

DeviceMgr::Status DeviceMgr::read(const p4::v1::ReadRequest& request, const ReadSink& sink,
                                  const EntityCaller* caller) const {
  return imp_->read(request, sink, caller);
}

bool DeviceMgr::may_read(const EntityCaller& caller, uint32_t object_id) const {
  return imp_->mayRead(caller, object_id);
}

DeviceMgr::Status DeviceMgr::require_writable(const EntityCaller& caller,
                                              std::span<const uint32_t> object_ids) const {
  return imp_->requireWritable(caller, object_ids);
}

DeviceMgr::Status DeviceMgr::stream_message_request_handle(
    const p4::v1::StreamMessageRequest& request) {
  return imp_->streamMessage(request);
}

void DeviceMgr::stream_message_response_register_cb(StreamMessageResponseCb cb, void* cookie) {
  imp_->streamResponseCbIs(std::move(cb), cookie);
}

}  // namespace pi::fe::proto
