// Follows the agent's own configuration: the request to exit.
#pragma once

#include <functional>

#include "P4Runtime/agent/AgentRuntime.h"
#include "platform/companion/P4RtSystemConfig.h"
#include "platform/vela/Entity.h"

namespace P4Runtime {

// Runs on the reactor.
class AgentConfigSm : public Vela::RefCounted {
 public:
  // `runtime` outlives this.
  AgentConfigSm(AgentRuntime& runtime, Vela::Ptr<AgentConfig> agentConfig);

  const Vela::Ptr<AgentConfig>& agentConfig() const { return agentConfig_; }
  void handleAgentExitRequest();
  void handleFlushEntityLogComplete();

 private:
  AgentRuntime& runtime_;
  const Vela::Ptr<AgentConfig> agentConfig_;
  Vela::Observation exitChange_;
};

}  // namespace P4Runtime
