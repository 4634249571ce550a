// Tells the process that runs the server of each call that changes something, or is refused.
#pragma once

#include <grpcpp/support/status.h>

#include <chrono>
#include <cstdint>
#include <string>

#include "PI/server/CallStatus.h"
#include "p4/v1/p4runtime.pb.h"

namespace grpc {
class ServerContext;
}

namespace pi::server {

// On the stack, for the length of a call. Costs a look at a flag where nobody listens.
class AccountedCall {
 public:
  explicit AccountedCall(const grpc::ServerContext& context);

  // "/p4.v1.P4Runtime/Write", a literal: the last word is told.
  void callIs(const char* path);
  void requestIs(const p4::v1::WriteRequest& request);
  void updatesAre(size_t count);
  void requestIs(const p4::v1::SetForwardingPipelineConfigRequest& request);
  void requestIs(const p4::v1::ReadRequest& request);
  void requestIs(const p4::v1::GetForwardingPipelineConfigRequest& request);
  void requestIs(const p4::v1::CapabilitiesRequest& request);
  void requestIs(const p4::v1::MasterArbitrationUpdate& request);
  // Another message of a stream, of which only refusals are told.
  void messageIs(const p4::v1::StreamMessageRequest& request, uint64_t deviceId,
                 const std::string& role);
  void detailAdd(const std::string& text) { detail_ += text; }
  // Tells of the call. Those that only read are told of when they are refused.
  void end(const grpc::Status& status) const;

 private:
  const grpc::ServerContext& context_;
  const bool listened_;
  const std::chrono::steady_clock::time_point began_;
  const char* what_ = "call";
  bool changes_ = false;
  uint64_t deviceId_ = 0;
  std::string role_;
  std::string detail_;
};

// statusOf() a body that gets the AccountedCall.
template <typename Body>
grpc::Status accounted(const grpc::ServerContext& context, Body body) {
  AccountedCall call(context);
  grpc::Status status = statusOf([&] { return body(call); });
  call.end(status);
  return status;
}

// Tells of a client that the server refused before it looked at its call.
void accountRefusedClient(const std::string& identity, const std::string& reason);

}  // namespace pi::server
