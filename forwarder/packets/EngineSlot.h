// The engine in force, on its way from the thread that follows the agent to the packet thread.
#pragma once

#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "p4/Engine.h"

namespace Forwarder {

// Threads: any, but for take(), which is the packet thread's. A former engine lives until the
// packet thread has let go of it; its memory is freed by another thread, as that may take long.
class EngineSlot {
 public:
  // Null: there is no program, and packets are dropped.
  void engineIs(std::shared_ptr<P4::Engine> engine) {
    {
      const std::lock_guard lock(mutex_);
      std::swap(engine_, engine);
    }
    freeFormer();
  }

  std::shared_ptr<P4::Engine> engine() const {
    const std::lock_guard lock(mutex_);
    return engine_;
  }

  // Brings `held` up to date; the engine that it held waits here for freeFormer(). Returns whether
  // it was another one.
  bool take(std::shared_ptr<P4::Engine>& held) {
    const std::lock_guard lock(mutex_);
    if (held == engine_) return false;
    if (held) former_.push_back(std::move(held));
    held = engine_;
    return true;
  }

  // To be called once in a while, by any thread but the packet thread.
  void freeFormer() {
    std::vector<std::shared_ptr<P4::Engine>> former;
    const std::lock_guard lock(mutex_);
    former.swap(former_);
  }

 private:
  mutable std::mutex mutex_;
  std::shared_ptr<P4::Engine> engine_;
  std::vector<std::shared_ptr<P4::Engine>> former_;  // that the packet thread has let go
};

}  // namespace Forwarder
