// The way into the critical state, in which reads are served and Writes refused, and out of it.
#include <fmt/chrono.h>
#include <fmt/format.h>

#include <chrono>

#include "P4Runtime/companion/P4RtSystemConfig.h"
#include "P4Runtime/pi/P4RuntimeException.h"
#include "P4Runtime/pi/PiContext.h"
#include "P4Runtime/pi/WriteGate.h"
#include "PI/frontends/proto/device_mgr.h"
#include "platform/scrivel/Trace.h"
#include "platform/vela/ErrorLine.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("P4RuntimeException");

using pi::fe::proto::DeviceMgr;

// The critical state never opens a gate that is closed.
void applyLevel(uint32_t levelWithoutGate) {
  if (WriteGate* gate = TheWriteGate()) return gate->applyLevel();
  DeviceMgr::set_operation_permission_level(levelWithoutGate);
}

// The status entity and the log say the same thing as the refused writes.
void enterCriticalState(P4RuntimeConfig::P4RtSystemStatus* status, const char* why) {
  if (status) status->criticalIs(why, fmt::format("{:%FT%TZ}", fmt::gmtime(std::time(nullptr))));
  applyLevel(readsAllowed);
  Vela::tellError(
      "the switch is critical: {}; WRITE operations are no longer allowed; call "
      "revertCriticalState once the forwarding plane can be trusted again",
      why);
}

}  // namespace

void P4RuntimeCriticalStateException::handleException(const P4RuntimeCriticalStateException& e) {
  SCRIVEL_TRACE(0, "P4RuntimeCriticalStateException",
                " Critical State encountered when programming.  error ", e.what());
  enterCriticalState(TheP4RtSystemStatus(), e.what());
}

pi_status_t P4RuntimeBrokenInvariantException::handleException(
    const P4RuntimeBrokenInvariantException& e) {
  SCRIVEL_TRACE(0, "P4RuntimeBrokenInvariantException", "Broken invariant: ", e.what(),
                " WRITE operations are no longer allowed");
  P4RuntimeConfig::P4RtSystemStatus* status = TheP4RtSystemStatus();
  enterCriticalState(status, e.what());
  if (status) status->brokenInvariantIs(true);
  return updateFailedStatus;
}

void P4RuntimeBrokenInvariantException::revertCriticalState() {
  const auto before = DeviceMgr::get_operation_permission_level();
  if (P4RuntimeConfig::P4RtSystemStatus* status = TheP4RtSystemStatus()) {
    status->brokenInvariantIs(false);
    status->criticalCleared();
  }
  applyLevel(writesAllowed);
  SCRIVEL_TRACE(0, "revertCriticalState", " Permission Level", " before: ", before,
                " after: ", DeviceMgr::get_operation_permission_level());
}

}  // namespace P4Runtime
