// The devices that the server serves. A device is there once its pipeline has been installed; as
// long as none is, any device id passes for one that is still to come, or only that of
// onlyDeviceIs().
// Thread-safe; holds its locks only while it looks.
#pragma once

#include <grpcpp/support/status.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

#include "PI/frontends/proto/device_mgr.h"

namespace pi::server {

class Devices {
 public:
  using DeviceMgr = pi::fe::proto::DeviceMgr;
  // A message of the device for its controllers. Called with the target's lock held: must not wait.
  using Receiver = std::function<void(uint64_t deviceId, p4::v1::StreamMessageResponse&&)>;

  explicit Devices(Receiver receiver) : receiver_(std::move(receiver)) {}

  // Installs the pipeline on a device, a new one if need be; waits for another installation.
  // A status other than OK leaves the devices as they were.
  DeviceMgr::Status pipelineIs(const p4::v1::SetForwardingPipelineConfigRequest& request);

  // For the whole process: the one device that will come. Before its pipeline no other id passes.
  static void onlyDeviceIs(std::optional<uint64_t> deviceId);

  // Lets all devices go. A device with a running call goes when that call ends.
  void pipelineDelAll();

  // The id that a controller's id stands for: itself, or for 0 that of the only device, where
  // lenience has it so.
  uint64_t servedAs(uint64_t deviceId) const;
  // NOT_FOUND for an id that neither is a device's nor passes for one.
  grpc::Status requireKnown(uint64_t deviceId) const;
  std::shared_ptr<DeviceMgr> device(uint64_t deviceId) const;  // null when not (yet) there
  std::optional<uint64_t> onlyDevice() const;  // its id, when there is one and no other

 private:
  static void onResponse(pi_dev_id_t deviceId, p4::v1::StreamMessageResponse* response,
                         void* devices);

  const Receiver receiver_;
  std::mutex installing_;     // guards no member: one installation at a time
  mutable std::mutex mutex_;  // guards devices_; taken last
  std::map<uint64_t, std::shared_ptr<DeviceMgr>> devices_;
};

}  // namespace pi::server
