// The gate through which Writes come to the agent. Each part that takes the model, the caches or
// the server away closes the gate first, waits until the batch in progress is settled, and opens
// the gate when its work is done.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "P4Runtime/companion/BatchStatus.h"
#include "P4Runtime/companion/P4RtSystemConfig.h"
#include "platform/vela/Entity.h"
#include "platform/vela/ReactorLoop.h"

namespace P4Runtime {

// Permission levels of the PI server.
inline constexpr uint32_t nothingAllowed = 0;
inline constexpr uint32_t readsAllowed = 1;
inline constexpr uint32_t writesAllowed = 2;

// Decides the permission level of the PI library: 0 while anybody keeps the gate closed, else 1 in
// the critical state, else 2. At level 0 no batch begins, so a closed gate without a batch in
// progress stays so. Call with the activity lock held; closers belong to the reactor.
class WriteGate : public Vela::Entity {
 public:
  class Closer;

  // All are given and not null; `loop` outlives this.
  WriteGate(Vela::ReactorLoop& loop, Vela::Ptr<BatchStatus> batchStatus,
            Vela::Ptr<P4RuntimeConfig::P4RtSystemStatus> systemStatus);
  const char* typeName() const override { return "P4Runtime::WriteGate"; }

  // Why the gate is closed, by all closers; "": it is open.
  VELA_READONLY_ATTRIBUTE(std::string, closedFor, "")

 public:
  bool isOpen() const { return closers_.empty(); }
  bool isDrained() const { return !isOpen() && !batchStatus_->inProgress(); }
  // Call after a change of the critical state: sets the level for it. A closed gate stays closed.
  void applyLevel();
  // Sets the level in place of the PI library's own function, so that it is traced.
  void levelHandlerIs(std::function<void(uint32_t)> handler) { setLevel_ = std::move(handler); }

 private:
  uint32_t level() const;
  void closerIs(Closer& closer);
  void closerDel(Closer& closer);
  void publish();
  void handleInProgress();
  void tellDrained();

  Vela::ReactorLoop& loop_;
  const Vela::Ptr<BatchStatus> batchStatus_;
  const Vela::Ptr<P4RuntimeConfig::P4RtSystemStatus> systemStatus_;
  std::function<void(uint32_t)> setLevel_;
  std::vector<Closer*> closers_;  // in the order in which they closed
  Vela::Observation progressChange_;
};

// One reason to keep the gate closed. Closes the process's gate; without one (tests) there is
// nothing to wait for. Opens it when it dies.
class WriteGate::Closer {
 public:
  explicit Closer(std::string why) : why_(std::move(why)) {}
  ~Closer() { open(); }
  Closer(const Closer&) = delete;
  Closer& operator=(const Closer&) = delete;

  // `drained` runs once: before this returns when no batch is in progress, else on a turn of the
  // reactor after the batch has settled. Closing again replaces a callback that has not run;
  // opening drops it.
  void close(std::function<void()> drained = {});
  void open();
  bool isClosed() const { return closed_; }
  bool isWaiting() const { return static_cast<bool>(drained_); }
  const std::string& why() const { return why_; }

 private:
  friend class WriteGate;
  void tellDrained();

  const std::string why_;
  bool closed_ = false;
  Vela::Ptr<WriteGate> gate_;
  std::function<void()> drained_;
};

// The process's gate; null until set. The agent sets it before its server starts.
WriteGate* TheWriteGate();
void TheWriteGateIs(Vela::Ptr<WriteGate> gate);

}  // namespace P4Runtime
