// The DeviceMgr that follows the test's script.
#include "tests/PI/server/FakeDeviceMgr.h"

#include <grpcpp/support/status.h>

#ifdef KORVEL_SANITIZED
// The test's thread writes the script before the call that reads it on a thread of gRPC's, which is
// not built for ThreadSanitizer: the order of the two cannot be seen.
extern "C" const char* __tsan_default_suppressions() {
  return "race:tests/PI/server/FakeDeviceMgr.cpp\n";
}
#endif

FakeDevice& TheFakeDevice() {
  static FakeDevice device;
  return device;
}

void FakeDevice::emit(uint64_t deviceId, const p4::v1::StreamMessageResponse& response) {
  p4::v1::StreamMessageResponse copy = response;
  callback(deviceId, &copy, cookie);
}

FakeDevice::Status statusOf(int code, const std::string& message) {
  FakeDevice::Status status;
  status.set_code(code);
  status.set_message(message);
  return status;
}

namespace pi::fe::proto {

class DeviceMgrImp {};

DeviceMgr::DeviceMgr(pi_dev_id_t) { ++TheFakeDevice().alive; }
DeviceMgr::~DeviceMgr() { --TheFakeDevice().alive; }

DeviceMgr::Status DeviceMgr::pipeline_config_set(p4::v1::SetForwardingPipelineConfigRequest::Action,
                                                 const p4::v1::ForwardingPipelineConfig& config) {
  if (TheFakeDevice().pipelineStatus.code() == 0) TheFakeDevice().pipelines.push_back(config);
  return TheFakeDevice().pipelineStatus;
}

DeviceMgr::Status DeviceMgr::pipeline_config_push(
    pi_dev_id_t, p4::v1::SetForwardingPipelineConfigRequest::Action,
    const p4::v1::ForwardingPipelineConfig*) {
  return statusOf(12, "no pipelines are taken");
}

void DeviceMgr::pipeline_config_given_changed() {}

DeviceMgr::Status DeviceMgr::pipeline_config_get(
    p4::v1::GetForwardingPipelineConfigRequest::ResponseType,
    p4::v1::ForwardingPipelineConfig* config) {
  *config = TheFakeDevice().pipelines.back();
  return {};
}

bool DeviceMgr::has_pipeline() const { return true; }

DeviceMgr::Status DeviceMgr::write(const p4::v1::WriteRequest& request, const Admit& admit,
                                   const EntityCaller* caller) {
  static std::mutex writing;
  ++TheFakeDevice().waiting;
  const std::lock_guard turn(writing);
  const Status admitted = admit();
  if (admitted.code() != 0) return admitted;
  TheFakeDevice().caller = caller;
  return TheFakeDevice().onWrite ? TheFakeDevice().onWrite(request) : Status();
}

DeviceMgr::Status DeviceMgr::write(const p4::v1::WriteRequest& header, const WriteUpdates& updates,
                                   const Admit& admit, const EntityCaller* caller) {
  p4::v1::WriteRequest whole = header;
  whole.clear_updates();
  p4::v1::Update room;
  for (size_t i = 0; i < updates.count(); ++i) *whole.add_updates() = updates.message(i, &room);
  return write(whole, admit, caller);
}

DeviceMgr::Status DeviceMgr::read(const p4::v1::ReadRequest& request, const ReadSink& sink,
                                  const EntityCaller* caller) const {
  TheFakeDevice().caller = caller;
  return TheFakeDevice().onRead ? TheFakeDevice().onRead(request, sink) : Status();
}

bool DeviceMgr::may_read(const EntityCaller& caller, uint32_t object_id) const {
  const auto& p4Info = TheFakeDevice().pipelines.back().p4info();
  return caller.rights(1, p4Info)->permits(EntityUse::read, {{}, object_id});
}

DeviceMgr::Status DeviceMgr::require_writable(const EntityCaller& caller,
                                              std::span<const uint32_t> object_ids) const {
  const auto rights = caller.rights(1, TheFakeDevice().pipelines.back().p4info());
  for (const uint32_t id : object_ids) {
    if (rights->permits(EntityUse::write, {{}, id})) continue;
    return statusOf(grpc::StatusCode::PERMISSION_DENIED,
                    rights->refusal(EntityUse::write, {{}, id}, "table t" + std::to_string(id)));
  }
  return {};
}

DeviceMgr::Status DeviceMgr::stream_message_request_handle(
    const p4::v1::StreamMessageRequest& request) {
  return TheFakeDevice().onStreamMessage ? TheFakeDevice().onStreamMessage(request) : Status();
}

void DeviceMgr::stream_message_response_register_cb(StreamMessageResponseCb cb, void* cookie) {
  TheFakeDevice().callback = cb;
  TheFakeDevice().cookie = cookie;
}

}  // namespace pi::fe::proto
