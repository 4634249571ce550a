#include "P4Runtime/monitoring/HttpWorkers.h"

#include <utility>

namespace P4Runtime {
namespace {

// Several peers that are slow on purpose leave some for others; most threads wait for a client.
constexpr size_t threadCount = 16;
constexpr size_t mostWaiting = 16;
constexpr std::chrono::milliseconds pace{10};

}  // namespace

HttpWorkers::HttpWorkers() {
  for (size_t i = 0; i < threadCount; ++i) threads_.emplace_back([this] { run(); });
}

void HttpWorkers::enqueue(std::function<void()> work) {
  std::this_thread::sleep_until(next_);
  next_ = std::chrono::steady_clock::now() + pace;
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [this] { return waiting_.size() < mostWaiting; });
  waiting_.push_back(std::move(work));
  changed_.notify_all();
}

void HttpWorkers::shutdown() {
  {
    const std::lock_guard lock(mutex_);
    ending_ = true;
  }
  changed_.notify_all();
  for (std::thread& one : threads_) one.join();
  threads_.clear();
}

void HttpWorkers::run() {
  std::unique_lock lock(mutex_);
  while (true) {
    changed_.wait(lock, [this] { return ending_ || !waiting_.empty(); });
    if (waiting_.empty()) return;
    const auto work = std::move(waiting_.front());
    waiting_.pop_front();
    changed_.notify_all();
    lock.unlock();
    work();
    lock.lock();
  }
}

}  // namespace P4Runtime
