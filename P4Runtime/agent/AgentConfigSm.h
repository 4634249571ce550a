// Follows the agent's own configuration: the request to exit.
#pragma once

#include <functional>
#include <utility>

#include "P4Runtime/agent/AgentRuntime.h"
#include "P4Runtime/companion/P4RtSystemConfig.h"
#include "platform/vela/Entity.h"

namespace P4Runtime {

// Runs on the reactor.
class AgentConfigSm : public Vela::RefCounted {
 public:
  // Calls back once requesters have taken their answers: the process may end then.
  using LastWords = std::function<void(std::function<void()>)>;

  // `runtime` outlives this.
  AgentConfigSm(AgentRuntime& runtime, Vela::Ptr<AgentConfig> agentConfig);
  void lastWordsIs(LastWords lastWords) { lastWords_ = std::move(lastWords); }

  const Vela::Ptr<AgentConfig>& agentConfig() const { return agentConfig_; }
  void handleAgentExitRequest();
  void handleFlushEntityLogComplete();

 private:
  AgentRuntime& runtime_;
  const Vela::Ptr<AgentConfig> agentConfig_;
  LastWords lastWords_;
  Vela::Observation exitChange_;
};

}  // namespace P4Runtime
