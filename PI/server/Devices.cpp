#include "PI/server/Devices.h"

#include <string>

#include "PI/server/Lenience.h"

namespace pi::server {

namespace {

struct ToCome {
  std::mutex mutex;  // guards only
  std::optional<uint64_t> only;

  std::optional<uint64_t> get() {
    const std::lock_guard lock(mutex);
    return only;
  }
};

ToCome& toCome() {
  static ToCome* const one = new ToCome;  // threads may outlive static destruction
  return *one;
}

}  // namespace

Devices::DeviceMgr::Status Devices::pipelineIs(
    const p4::v1::SetForwardingPipelineConfigRequest& request) {
  DeviceMgr::Status status;
  const std::lock_guard installing(installing_);
  std::shared_ptr<DeviceMgr> target = device(request.device_id());
  if (!target) {
    target = std::make_shared<DeviceMgr>(request.device_id());
    target->stream_message_response_register_cb(&Devices::onResponse, this);
  }
  status = target->pipeline_config_set(request.action(), request.config());
  if (status.code() != 0) return status;
  const std::lock_guard lock(mutex_);
  devices_[request.device_id()] = std::move(target);
  return status;
}

void Devices::pipelineDelAll() {
  std::map<uint64_t, std::shared_ptr<DeviceMgr>> gone;  // they wait for the target: not locked
  const std::lock_guard installing(installing_);
  const std::lock_guard lock(mutex_);
  gone.swap(devices_);
}

void Devices::onlyDeviceIs(std::optional<uint64_t> deviceId) {
  const std::lock_guard lock(toCome().mutex);
  toCome().only = deviceId;
}

uint64_t Devices::servedAs(uint64_t deviceId) const {
  if (deviceId != 0 || !lenience().deviceZero) return deviceId;
  if (const auto only = toCome().get()) return *only;
  return onlyDevice().value_or(deviceId);
}

grpc::Status Devices::requireKnown(uint64_t deviceId) const {
  const std::lock_guard lock(mutex_);
  if (devices_.count(deviceId)) return grpc::Status::OK;
  const std::optional<uint64_t> served =
      devices_.empty() ? toCome().get() : std::optional(devices_.begin()->first);
  if (!served || served == deviceId) return grpc::Status::OK;
  return grpc::Status(grpc::StatusCode::NOT_FOUND, "unknown device " + std::to_string(deviceId) +
                                                       "; this switch serves device " +
                                                       std::to_string(*served));
}

std::shared_ptr<Devices::DeviceMgr> Devices::device(uint64_t deviceId) const {
  const std::lock_guard lock(mutex_);
  const auto found = devices_.find(deviceId);
  return found == devices_.end() ? nullptr : found->second;
}

std::optional<uint64_t> Devices::onlyDevice() const {
  const std::lock_guard lock(mutex_);
  if (devices_.size() != 1) return std::nullopt;
  return devices_.begin()->first;
}

void Devices::onResponse(pi_dev_id_t deviceId, p4::v1::StreamMessageResponse* response,
                         void* devices) {
  static_cast<Devices*>(devices)->receiver_(deviceId, std::move(*response));
}

}  // namespace pi::server
