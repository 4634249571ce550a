#include "P4Runtime/agent/AgentConfigSm.h"

#include <cassert>
#include <utility>

#include "P4Runtime/agent/AccountLog.h"
#include "PI/proto/pi_server_security.h"
#include "platform/scrivel/Trace.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("AgentConfigSm");

}  // namespace

AgentConfigSm::AgentConfigSm(AgentRuntime& runtime, Vela::Ptr<AgentConfig> agentConfig)
    : runtime_(runtime), agentConfig_(std::move(agentConfig)) {
  exitChange_ = agentConfig_->exitRequestedAttribute().observe([this] {
    if (agentConfig_->exitRequested()) return handleAgentExitRequest();
    if (runtime_.exitIsNear) runtime_.exitIsNear(false);
  });
  if (agentConfig_->exitRequested()) handleAgentExitRequest();
}

void AgentConfigSm::handleAgentExitRequest() {
  assert(agentConfig()->exitRequested());
  SCRIVEL_TRACE(0, " Exit Requested ");
  if (runtime_.exitIsNear) runtime_.exitIsNear(true);
  runtime_.flushEntityLog([this] {
    const auto complete = [this] {
      if (agentConfig()->exitRequested()) handleFlushEntityLogComplete();  // else it was taken back
    };
    lastWords_ ? lastWords_(complete) : complete();
  });
}

void AgentConfigSm::handleFlushEntityLogComplete() {
  SCRIVEL_TRACE(0, "handleFlushEntityLogComplete");
  assert(agentConfig()->exitRequested());
  PIGrpcServerRemoveUnixSocket();
  flushAccounts();
  runtime_.exit(0);
}

}  // namespace P4Runtime
