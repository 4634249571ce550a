// The process-wide context through which the PI entry points reach the agent's objects.
#pragma once

#include "P4Runtime/agent/KorvelPiServer.h"
#include "P4Runtime/companion/BatchStatus.h"
#include "P4Runtime/companion/HwStatusDir.h"
#include "P4Runtime/companion/P4HandleMgr.h"
#include "P4Runtime/companion/P4RtSystemConfig.h"
#include "P4Runtime/packet/ControllerTxPktConfig.h"
#include "P4Runtime/pipeline/P4ControllerPktMetadata.h"
#include "P4Runtime/table/TableImpl.h"
#include "platform/vela/Entity.h"

namespace P4Runtime {

// Created empty and filled by the agent before the server starts; read without locking after that.
class PiContext : public Vela::Entity {
 public:
  using Ptr = Vela::Ptr<PiContext>;

  PiContext();
  ~PiContext() override;
  const char* typeName() const override { return "P4Runtime::PiContext"; }

  VELA_READONLY_ATTRIBUTE(Vela::Ptr<KorvelPiServer>, piServer, nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<BatchStatus>, batchStatus, nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<ControllerTxPktConfig>, controllerTxPktConfig, nullptr)
  VELA_READONLY_ATTRIBUTE(P4ControllerPktMetadata::Ptr, p4ControllerPktMetadata, nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<TableImpl>, tableImpl, nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<P4HandleMgr>, p4HandleMgr, nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<P4RuntimeConfig::P4RtSystemStatus>, p4RtSystemStatus, nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<const HwStatusDir>, hwStatusDir, nullptr)
};

PiContext::Ptr piContextFactory();

// Asserts that there is a context; setting the one already set changes nothing.
void ThePiContextIs(PiContext::Ptr pic);
PiContext::Ptr ThePiContext();

// Borrowed from the context, which must have been set; null until the agent has filled it in.
TableImpl* TheTableImpl();
BatchStatus* TheBatchStatus();
P4HandleMgr* TheP4HandleMgr();
P4RuntimeConfig::P4RtSystemStatus* TheP4RtSystemStatus();

}  // namespace P4Runtime
