#include "P4Runtime/agent/P4RuntimeLocalController.h"

#include <cassert>
#include <cstdio>
#include <utility>

#include "PI/proto/pi_server.h"
#include "platform/vela/ActivityLock.h"

namespace P4Runtime {
namespace {

constexpr int secondsToStart = 10;

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
  grpc::ClientContext context;
  context.set_wait_for_ready(true);
  context.set_deadline(std::chrono::system_clock::now() + patience_);
  context.AddMetadata(PIGrpcServerLocalTokenKey(), PIGrpcServerLocalToken());
  p4::v1::SetForwardingPipelineConfigResponse response;
  requireOk(stub_->SetForwardingPipelineConfig(&context, request, &response));
  return 0;
}

int P4RuntimeLocalController::getForwardingPipelineConfigRequest(
    const p4::v1::GetForwardingPipelineConfigRequest& request) {
  grpc::ClientContext context;
  context.set_deadline(std::chrono::system_clock::now() + patience_);
  p4::v1::GetForwardingPipelineConfigResponse response;
  const grpc::Status status = stub_->GetForwardingPipelineConfig(&context, request, &response);
  if (status.error_code() == grpc::StatusCode::FAILED_PRECONDITION) return status.error_code();
  requireOk(status);
  return 0;
}

}  // namespace P4Runtime
