// Through which the PI entry points hand controllers' pipelines on; the agent does the work.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace P4Runtime {

// Canonical code of gRPC, and a message for the controller. With code 0 and VERIFY: what
// RECONCILE_AND_COMMIT would refuse; empty: nothing.
struct PushAnswer {
  int code = 0;
  std::string message = {};
};

// Any thread, without the activity lock. Nothing is thrown.
class PipelinePushes {
 public:
  virtual ~PipelinePushes() = default;
  // Waits until the pipeline runs or is refused. `action` is a
  // p4.v1.SetForwardingPipelineConfigRequest.Action, `config` a serialized
  // p4.v1.ForwardingPipelineConfig.
  virtual PushAnswer push(int action, std::optional<std::string_view> config) = 0;
  // The running pipeline as a controller pushed it; empty: by configuration.
  virtual std::string given() const = 0;
};

// The process's; null until the agent has set it, before its server starts.
PipelinePushes* ThePipelinePushes();
void ThePipelinePushesIs(PipelinePushes* pushes);

}  // namespace P4Runtime
