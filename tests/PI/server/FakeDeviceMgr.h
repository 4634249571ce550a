// Stands in for the front end: the DeviceMgr of this test program follows the test's script.
#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <vector>

#include "PI/frontends/proto/device_mgr.h"

struct FakeDevice {
  using DeviceMgr = pi::fe::proto::DeviceMgr;
  using Status = DeviceMgr::Status;

  std::function<Status(const p4::v1::WriteRequest&)> onWrite;
  std::function<Status(const p4::v1::ReadRequest&, const DeviceMgr::ReadSink&)> onRead;
  std::function<Status(const p4::v1::StreamMessageRequest&)> onStreamMessage;
  Status pipelineStatus;  // of the next push

  // The calls that DeviceMgr objects saw. Pushes come one after another; reading them needs no lock
  // then.
  std::vector<p4::v1::ForwardingPipelineConfig> pipelines;
  int alive = 0;
  const pi::fe::proto::EntityCaller* caller = nullptr;  // of the last call, which has not returned
  static inline std::atomic<int> waiting = 0;           // Writes that came, of all devices

  // As if the device had something for its controllers.
  void emit(uint64_t deviceId, const p4::v1::StreamMessageResponse& response);

  DeviceMgr::StreamMessageResponseCb callback;
  void* cookie = nullptr;
};

// Reset it before each test, while no server runs.
FakeDevice& TheFakeDevice();

FakeDevice::Status statusOf(int code, const std::string& message = "");
