// Sets, checks and returns the pipeline of a device, for the agent and for controllers.
#include "PI/frontend/DeviceMgrImp.h"
#include "PI/frontend/base/Refusal.h"
#include "PI/frontend/base/StatusText.h"
#include "PI/pi.h"
#include "PI/target/pi_extensions_imp.h"

namespace pi::fe::proto {

using Request = p4::v1::SetForwardingPipelineConfigRequest;
using GetRequest = p4::v1::GetForwardingPipelineConfigRequest;

namespace {

bool bringsConfig(Request::Action action) {
  return action == Request::VERIFY || action == Request::VERIFY_AND_SAVE ||
         action == Request::VERIFY_AND_COMMIT || action == Request::RECONCILE_AND_COMMIT;
}

void requireKnown(Request::Action action) {
  if (bringsConfig(action) || action == Request::COMMIT) return;
  refuse(code::invalidArgument, "the action ", static_cast<int>(action), " is unknown");
}

void requireSuccess(pi_status_t status, const char* step) {
  if (status == PI_STATUS_SUCCESS) return;
  refuse(code::internal, "the target refused the pipeline: ", step, " answered ", status);
}

void receive(void* bytes, const char* data, size_t size) {
  static_cast<std::string*>(bytes)->assign(data, size);
}

}  // namespace

DeviceMgrImp::Status DeviceMgrImp::pipelineConfigSet(Action action, const Config& config) {
  try {
    requireKnown(action);
    const std::lock_guard writing(writeMutex_);
    doApply(action, config);
    return okStatus();
  } catch (const Refusal& refusal) {
    return plainStatus(refusal.code(), refusal.message());
  }
}

// With the write mutex held.
void DeviceMgrImp::doApply(Action action, const Config& config) {
  if (action == Request::RECONCILE_AND_COMMIT) {
    refuse(code::unimplemented,
           "RECONCILE_AND_COMMIT is not supported; VERIFY_AND_COMMIT starts without entries");
  }
  std::shared_ptr<Pipeline> next;
  if (action == Request::COMMIT) {
    const std::lock_guard lock(mutex_);
    next = saved_;
    if (next == nullptr) refuse(code::notFound, "no pipeline is saved; use VERIFY_AND_SAVE first");
  } else {
    next = std::make_shared<Pipeline>(config);
  }
  if (action == Request::VERIFY) return;
  if (action == Request::VERIFY_AND_SAVE) {
    const std::lock_guard lock(mutex_);
    saved_ = std::move(next);
    return;
  }
  doCommit(std::move(next));
}

void DeviceMgrImp::doCommit(std::shared_ptr<Pipeline> next) {
  std::shared_ptr<Pipeline> former;
  bool wasRestored = false;
  {
    const std::lock_guard lock(mutex_);
    former = std::exchange(pipeline_, next);
    wasRestored = std::exchange(isRestored_, false);
    former_ = wasRestored ? former : nullptr;
  }
  try {
    doInstall(*next);
  } catch (const Refusal&) {
    const std::lock_guard lock(mutex_);
    pipeline_ = former;
    isRestored_ = wasRestored;
    former_ = nullptr;
    restored_.notify_all();
    throw;
  }
  handleGivenChanged();
  const std::lock_guard lock(mutex_);
  saved_ = nullptr;
}

void DeviceMgrImp::doInstall(const Pipeline& pipeline) {
  if (!pi_is_device_assigned(deviceId_)) {
    pi_assign_extra_t noExtras{1, nullptr, nullptr};
    requireSuccess(pi_assign_device(deviceId_, pipeline.p4info(), &noExtras), "pi_assign_device");
  }
  const std::string& data = pipeline.deviceData();
  requireSuccess(pi_update_device_start(deviceId_, pipeline.p4info(), data.data(), data.size()),
                 "pi_update_device_start");
  requireSuccess(pi_update_device_end(deviceId_), "pi_update_device_end");
}

DeviceMgrImp::Status DeviceMgrImp::pipelineConfigPush(pi_dev_id_t deviceId, Action action,
                                                      const Config* config) {
  std::string message;
  std::string bytes;
  if (config != nullptr) bytes = config->SerializeAsString();
  const int code = _pi_pipeline_push(deviceId, action, config == nullptr ? nullptr : bytes.data(),
                                     bytes.size(), receive, &message);
  return plainStatus(code, message);  // a remark may come with OK
}

// Not with the mutex held: the target takes its own lock.
void DeviceMgrImp::handleGivenChanged() {
  std::string bytes;
  _pi_pipeline_given(deviceId_, receive, &bytes);
  auto given = std::make_shared<Config>();
  if (bytes.empty() || !given->ParseFromString(bytes)) given = nullptr;
  const std::lock_guard lock(mutex_);
  given_ = std::move(given);
}

DeviceMgrImp::Status DeviceMgrImp::pipelineConfig(GetRequest::ResponseType type,
                                                  Config* config) const {
  config->Clear();
  if (!GetRequest::ResponseType_IsValid(type)) {
    return plainStatus(code::invalidArgument,
                       absl::StrCat("the response type ", static_cast<int>(type), " is unknown"));
  }
  std::shared_ptr<const Config> given;
  std::shared_ptr<Pipeline> running;
  {
    const std::lock_guard lock(mutex_);
    given = given_;
    running = pipeline_;
  }
  if (running == nullptr) return okStatus();
  const Config& all = given ? *given : running->config();
  const bool everything = type == GetRequest::ALL;
  if (everything || type == GetRequest::P4INFO_AND_COOKIE) {
    *config->mutable_p4info() = all.p4info();
  }
  if (everything || type == GetRequest::DEVICE_CONFIG_AND_COOKIE) {
    config->set_p4_device_config(all.p4_device_config());
  }
  if (all.has_cookie()) *config->mutable_cookie() = all.cookie();
  return okStatus();
}

}  // namespace pi::fe::proto
