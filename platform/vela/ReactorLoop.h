// The reactor: one thread that runs every state machine, on libuv.
#pragma once

#include <chrono>
#include <functional>
#include <memory>

struct uv_loop_s;

namespace Vela {

class FileDescriptor;
class Timer;

// Each callback runs on the thread in run(), with the activity lock held for its duration only. An
// exception that leaves a callback ends the process with one line and status 1.
class ReactorLoop {
 public:
  ReactorLoop();   // throws std::system_error
  ~ReactorLoop();  // after run() has returned; closes all open handles
  ReactorLoop(const ReactorLoop&) = delete;
  ReactorLoop& operator=(const ReactorLoop&) = delete;

  void run();   // until stop(); posts and timers given before run() are kept
  void stop();  // from any thread, also before run(): run() then returns at once
  // From any thread: `work` runs on a later turn of the loop, in the order posted.
  void post(std::function<void()> work);
  bool onThread() const;  // true on the thread in run()

  // Only the thread in run() may call libuv. touch() runs `work` at once on that thread, and while
  // no thread is in run(); else that thread runs it soon, before any post and any later `work`,
  // with the activity lock held. Call with the lock held.
  void touch(std::function<void()> work);

 private:
  friend class FileDescriptor;
  friend class Timer;
  uv_loop_s* handle();  // for a touch() alone
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// The process's loop, for code at the edges; null until set. Set once, before other threads start.
ReactorLoop* TheReactorLoop();
void TheReactorLoopIs(ReactorLoop* loop);

}  // namespace Vela
