// The threads that serve HTTP, and the connections that wait for one.
#pragma once

#include <httplib.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace P4Runtime {

// A bounded number of connections waits; then the thread that accepts them does, and the kernel
// refuses more. Otherwise clients could use up the descriptors of the process. Connections come at
// a pace: the handshake of any client costs a millisecond of the processor.
class HttpWorkers final : public httplib::TaskQueue {
 public:
  HttpWorkers();

  void enqueue(std::function<void()> work) override;  // by one thread
  void shutdown() override;                           // what waits is done first

 private:
  void run();

  std::mutex mutex_;  // guards the members below
  std::condition_variable changed_;
  std::deque<std::function<void()>> waiting_;
  bool ending_ = false;
  std::vector<std::thread> threads_;            // constant until shutdown()
  std::chrono::steady_clock::time_point next_;  // of enqueue()'s thread: when it may take another
};

}  // namespace P4Runtime
