// A timer of the reactor loop.
#pragma once

#include <chrono>
#include <functional>
#include <memory>

#include "platform/vela/ReactorLoop.h"

namespace Vela {

// Call with the activity lock held, on any thread. Destroying a running timer stops it.
class Timer {
 public:
  Timer(ReactorLoop& loop, std::function<void()> expired);
  ~Timer();
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;

  void start(std::chrono::milliseconds delay,
             std::chrono::milliseconds period = std::chrono::milliseconds(0));  // 0: once
  void stop();

 private:
  struct Impl;
  ReactorLoop& loop_;
  Impl* const impl_;  // freed by libuv's close callback
};

}  // namespace Vela
