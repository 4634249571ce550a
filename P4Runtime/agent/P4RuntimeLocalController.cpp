#include "P4Runtime/agent/P4RuntimeLocalController.h"

#include <cassert>
#include <cstdio>
#include <thread>
#include <utility>

#include "PI/proto/pi_server.h"
#include "platform/vela/ActivityLock.h"

namespace P4Runtime {
namespace {

constexpr int secondsToStart = 10;
constexpr std::chrono::milliseconds pause(100);

void requireOk(const grpc::Status& status) {
  if (status.ok()) return;
  std::fprintf(stderr, "Failed(status.ok())  errorCode %d error %s\n",
               static_cast<int>(status.error_code()), status.error_message().c_str());
  assert(!"status.ok()");
}

}  // namespace

P4RuntimeLocalController::P4RuntimeLocalController(std::unique_ptr<p4::v1::P4Runtime::Stub> stub,
                                                   std::chrono::milliseconds patience)
    : stub_(std::move(stub)), patience_(patience) {}

int P4RuntimeLocalController::setForwardingPipelineConfigRequest(
    const p4::v1::SetForwardingPipelineConfigRequest& request) {
  const Vela::ActivityLockReleased released;
  PIGrpcServerWaitStarted(secondsToStart);  // which makes the token
  const auto deadline = std::chrono::system_clock::now() + patience_;
  grpc::Status status = push(request, deadline);
  while (status.error_code() == grpc::StatusCode::RESOURCE_EXHAUSTED &&
         std::chrono::system_clock::now() + pause < deadline) {
    std::this_thread::sleep_for(pause);  // the server is busy with other requests
    status = push(request, deadline);
  }
  requireOk(status);
  return 0;
}

grpc::Status P4RuntimeLocalController::push(
    const p4::v1::SetForwardingPipelineConfigRequest& request,
    std::chrono::system_clock::time_point deadline) {
  grpc::ClientContext context;
  context.set_wait_for_ready(true);
  context.set_deadline(deadline);
  context.AddMetadata(PIGrpcServerLocalTokenKey(), PIGrpcServerLocalToken());
  p4::v1::SetForwardingPipelineConfigResponse response;
  return stub_->SetForwardingPipelineConfig(&context, request, &response);
}

int P4RuntimeLocalController::getForwardingPipelineConfigRequest(
    const p4::v1::GetForwardingPipelineConfigRequest& request) {
  grpc::ClientContext context;
  context.set_deadline(std::chrono::system_clock::now() + patience_);
  context.AddMetadata(PIGrpcServerLocalTokenKey(), PIGrpcServerLocalToken());
  p4::v1::GetForwardingPipelineConfigResponse response;
  const grpc::Status status = stub_->GetForwardingPipelineConfig(&context, request, &response);
  if (status.error_code() == grpc::StatusCode::FAILED_PRECONDITION) return status.error_code();
  requireOk(status);
  return 0;
}

}  // namespace P4Runtime
