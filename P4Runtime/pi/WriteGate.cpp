#include "P4Runtime/pi/WriteGate.h"

#include <algorithm>

#include "PI/frontends/proto/device_mgr.h"
#include "platform/scrivel/Trace.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("WriteGate");

using pi::fe::proto::DeviceMgr;

Vela::Ptr<WriteGate>& theGate() {
  static auto* gate = new Vela::Ptr<WriteGate>;  // guarded by the activity lock
  return *gate;
}

}  // namespace

WriteGate* TheWriteGate() { return theGate().get(); }
void TheWriteGateIs(Vela::Ptr<WriteGate> gate) { theGate() = std::move(gate); }

WriteGate::WriteGate(Vela::ReactorLoop& loop, Vela::Ptr<BatchStatus> batchStatus,
                     Vela::Ptr<P4RuntimeConfig::P4RtSystemStatus> systemStatus)
    : Entity("writeGate"),
      loop_(loop),
      batchStatus_(std::move(batchStatus)),
      systemStatus_(std::move(systemStatus)),
      setLevel_([](uint32_t level) { DeviceMgr::set_operation_permission_level(level); }) {
  progressChange_ = batchStatus_->inProgressAttribute().observe([this] { handleInProgress(); });
}

uint32_t WriteGate::level() const {
  if (!isOpen()) return nothingAllowed;
  const bool distrusted = systemStatus_->brokenInvariant() || systemStatus_->critical();
  return distrusted ? readsAllowed : writesAllowed;
}

void WriteGate::applyLevel() { setLevel_(level()); }

void WriteGate::closerIs(Closer& closer) {
  closers_.push_back(&closer);
  publish();
}

void WriteGate::closerDel(Closer& closer) {
  std::erase(closers_, &closer);
  publish();
}

void WriteGate::publish() {
  std::string reasons;
  for (const Closer* closer : closers_) reasons += (reasons.empty() ? "" : ", ") + closer->why();
  SCRIVEL_TRACE(1, "WriteGate", " closed for: ", reasons);
  closedForIs(reasons);
  applyLevel();
}

// Runs on the thread of the batch; waiting closers belong to the reactor.
void WriteGate::handleInProgress() {
  SCRIVEL_TRACE(7, "handleInProgress", " ", batchStatus_->inProgress());
  if (isOpen() || batchStatus_->inProgress()) return;
  loop_.post([this, alive = Vela::Ptr<WriteGate>(this)] { tellDrained(); });
}

// A callback may close and open as it likes.
void WriteGate::tellDrained() {
  while (isDrained()) {
    const auto waiting = std::ranges::find_if(closers_, &Closer::isWaiting);
    if (waiting == closers_.end()) return;
    (*waiting)->tellDrained();
  }
}

void WriteGate::Closer::close(std::function<void()> drained) {
  drained_ = std::move(drained);
  if (!closed_) {
    closed_ = true;
    gate_ = Vela::Ptr<WriteGate>(TheWriteGate());
    if (gate_) gate_->closerIs(*this);
  }
  if (drained_ && (!gate_ || gate_->isDrained())) tellDrained();
}

void WriteGate::Closer::open() {
  drained_ = nullptr;
  if (!std::exchange(closed_, false)) return;
  if (const auto gate = std::exchange(gate_, nullptr)) gate->closerDel(*this);
}

void WriteGate::Closer::tellDrained() { std::exchange(drained_, nullptr)(); }

}  // namespace P4Runtime
