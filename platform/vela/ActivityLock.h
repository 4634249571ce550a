// The activity lock: one recursive lock that serialises the reactor thread and the threads that
// enter through the PI entry points. A thread gives it up wholly before it waits for anything.
#pragma once

#include <cstdint>
#include <functional>

namespace Vela {

// Takes the lock for a scope; nests.
class ActivityLock {
 public:
  ActivityLock();
  ~ActivityLock();
  ActivityLock(const ActivityLock&) = delete;
  ActivityLock& operator=(const ActivityLock&) = delete;

  static bool held();       // by this thread
  static unsigned depth();  // of this thread, 0 when it does not hold the lock

  // Runs `work` once this thread has given the lock up (at the end of its outermost scope, or for
  // an ActivityLockReleased): to wake a thread that needs the lock without making it wait for it.
  // `work` must neither throw nor rely on the lock. Runs at once when the lock is not held.
  static void afterRelease(std::function<void()> work);
};

// Gives the lock up for a scope, at any depth at which this thread holds it (or at none), and takes
// it back to the same depth. Afterwards believe nothing read before.
class ActivityLockReleased {
 public:
  ActivityLockReleased();
  ~ActivityLockReleased();
  ActivityLockReleased(const ActivityLockReleased&) = delete;
  ActivityLockReleased& operator=(const ActivityLockReleased&) = delete;

 private:
  unsigned depth_;
};

// Runs `hook`, with the lock held, each time a thread is about to give the lock up: at the end of
// its outermost ActivityLock and before an ActivityLockReleased. Shared-memory writes that belong
// to no batch become visible there. Hooks run in the order they came, must not throw, and may take
// the lock again. Removed when the returned object dies. Call with the lock held.
class ScopeEndHook {
 public:
  explicit ScopeEndHook(std::function<void()> hook);
  ~ScopeEndHook();
  ScopeEndHook(const ScopeEndHook&) = delete;
  ScopeEndHook& operator=(const ScopeEndHook&) = delete;

 private:
  uint64_t id_;
};

}  // namespace Vela
