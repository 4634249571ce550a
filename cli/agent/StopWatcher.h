// The agent's signals: ends the process soon after a request to stop, even if it is busy.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>

// Watches SIGTERM, SIGINT and SIGHUP on a thread of its own. The first SIGTERM or SIGINT, at any
// time from its construction on, has the agent's reactor exit. A reactor that does not exit in time
// is not waited for: it may be opening a store of a million entries, or wait for a call into its
// own server. The process then ends with status 0 at once, which harms no more than SIGKILL does:
// confirmed entries are committed, the shared files show whole commits at any instant, and the next
// start takes them as they are.
class StopWatcher {
 public:
  // Blocks the signals in this thread and all that it makes later, so make it before others.
  // Throws std::system_error. Never destroyed: its thread ends with the process.
  StopWatcher();
  StopWatcher(const StopWatcher&) = delete;
  StopWatcher& operator=(const StopWatcher&) = delete;

  bool requested() const { return requested_; }  // by a signal
  // Runs once a signal came, also when that has happened already; on any thread.
  void onRequestIs(std::function<void()> request);
  // Runs at each SIGHUP, on the watcher's thread. Until it is set, SIGHUP does nothing.
  void onHangUpIs(std::function<void()> hangUp);
  // True: the process is about to end for another reason than a signal. False: it will not after
  // all. A signal cannot be taken back.
  void exitIsNear(bool near);

 private:
  void run();
  void handleSignal();
  int millisecondsLeft();

  std::mutex mutex_;  // guards request_, hangUp_ and deadline_
  std::function<void()> request_;
  std::function<void()> hangUp_;
  int64_t deadline_ = 0;  // milliseconds on the steady clock; 0: no deadline
  std::atomic<bool> requested_{false};
  int signalFd_ = -1;
  int wakeFd_ = -1;
};
