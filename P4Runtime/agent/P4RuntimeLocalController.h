// The small client by which the agent installs its own pipeline in its own server.
#pragma once

#include <chrono>
#include <memory>

#include "p4/v1/p4runtime.grpc.pb.h"

namespace P4Runtime {

// For one request, on the stack. Returns 0 when the server accepted it; aborts the process when it
// did not, or not within `patience`, after saying why on standard error: without its pipeline the
// agent is of no use.
class P4RuntimeLocalController {
 public:
  explicit P4RuntimeLocalController(std::unique_ptr<p4::v1::P4Runtime::Stub> stub,
                                    std::chrono::milliseconds patience = std::chrono::minutes(1));

  // Waits for the server to listen, and tries again as long as it is out of resources. Gives the
  // activity lock up for the whole call, since the server enters the agent under it.
  int setForwardingPipelineConfigRequest(const p4::v1::SetForwardingPipelineConfigRequest& request);
  // Keeps the activity lock. Returns 9 when the server has no pipeline.
  int getForwardingPipelineConfigRequest(const p4::v1::GetForwardingPipelineConfigRequest& request);

 private:
  grpc::Status push(const p4::v1::SetForwardingPipelineConfigRequest& request,
                    std::chrono::system_clock::time_point deadline);

  const std::unique_ptr<p4::v1::P4Runtime::Stub> stub_;
  const std::chrono::milliseconds patience_;
};

}  // namespace P4Runtime
