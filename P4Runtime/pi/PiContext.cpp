#include "P4Runtime/pi/PiContext.h"

#include <cassert>
#include <utility>

namespace P4Runtime {
namespace {

PiContext::Ptr& theContext() {
  static auto* context = new PiContext::Ptr;  // outlives the server's threads
  return *context;
}

}  // namespace

PiContext::PiContext() : Entity("piContext") {}
PiContext::~PiContext() = default;

PiContext::Ptr piContextFactory() { return Vela::make<PiContext>(); }

void ThePiContextIs(PiContext::Ptr pic) {
  assert(pic);
  if (pic == theContext()) return;
  theContext() = std::move(pic);
}

const PiContext::Ptr& ThePiContext() { return theContext(); }

BatchStatus* TheBatchStatus() { return theContext()->batchStatus().get(); }
P4HandleMgr* TheP4HandleMgr() { return theContext()->p4HandleMgr().get(); }
P4RuntimeConfig::P4RtSystemStatus* TheP4RtSystemStatus() {
  return theContext()->p4RtSystemStatus().get();
}
BatchEntries* TheBatchEntries() { return theContext()->tableImpl().base(); }

}  // namespace P4Runtime
