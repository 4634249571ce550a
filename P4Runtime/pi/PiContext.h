// The process-wide context through which the PI entry points reach the agent's objects. Entry
// points take objects from it and hand references on; code inside does not reach for it.
#pragma once

#include "P4Runtime/companion/BatchStatus.h"
#include "P4Runtime/companion/HwStatusDir.h"
#include "P4Runtime/companion/P4HandleMgr.h"
#include "P4Runtime/companion/P4RtSystemConfig.h"
#include "P4Runtime/pi/BatchEntries.h"
#include "P4Runtime/pi/ContextReference.h"
#include "platform/vela/Entity.h"

namespace P4Runtime {

class ControllerTxPktConfig;
class KorvelPiServer;
class P4ControllerPktMetadata;
class TableImpl;

// Created empty and filled by the agent before the server starts; read without locking after that.
// It knows the objects of higher rooms by name only.
class PiContext : public Vela::Entity {
 public:
  using Ptr = Vela::Ptr<PiContext>;
  using PiServer = ContextReference<KorvelPiServer, DeviceServer>;
  using Tables = ContextReference<TableImpl, BatchEntries>;

  PiContext();
  ~PiContext() override;
  const char* typeName() const override { return "P4Runtime::PiContext"; }

  VELA_READONLY_ATTRIBUTE(PiServer, piServer, nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<BatchStatus>, batchStatus, nullptr)
  VELA_READONLY_ATTRIBUTE(ContextReference<ControllerTxPktConfig>, controllerTxPktConfig, nullptr)
  VELA_READONLY_ATTRIBUTE(ContextReference<P4ControllerPktMetadata>, p4ControllerPktMetadata,
                          nullptr)
  VELA_READONLY_ATTRIBUTE(Tables, tableImpl, nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<P4HandleMgr>, p4HandleMgr, nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<P4RuntimeConfig::P4RtSystemStatus>, p4RtSystemStatus, nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<const HwStatusDir>, hwStatusDir, nullptr)
};

PiContext::Ptr piContextFactory();

// Asserts that there is a context; setting the one already set changes nothing.
void ThePiContextIs(PiContext::Ptr pic);
const PiContext::Ptr& ThePiContext();

// Borrowed from the context, which must have been set; null until the agent has filled it in.
// TheTableImpl() stands with TableImpl.
BatchStatus* TheBatchStatus();
P4HandleMgr* TheP4HandleMgr();
P4RuntimeConfig::P4RtSystemStatus* TheP4RtSystemStatus();
BatchEntries* TheBatchEntries();  // the table implementation

}  // namespace P4Runtime
