// The loop on libuv: an async handle carries posts from other threads.
#include "platform/vela/ReactorLoop.h"

#include <uv.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "platform/vela/ActivityLock.h"

namespace Vela {

struct ReactorLoop::Impl {
  uv_loop_t loop;
  uv_async_t wake;
  std::mutex mutex;
  std::vector<std::function<void()>> posted;  // guarded by mutex
  std::atomic<bool> stopping{false};
  std::atomic<std::thread::id> thread{};

  void runPosted() {
    std::vector<std::function<void()>> work;
    {
      const std::lock_guard guard(mutex);
      work.swap(posted);
    }
    for (auto& one : work) {
      const ActivityLock lock;
      one();
      one = nullptr;  // what it holds goes under the lock
    }
    if (stopping) uv_stop(&loop);
  }
};

ReactorLoop::ReactorLoop() : impl_(std::make_unique<Impl>()) {
  uv_loop_init(&impl_->loop);
  impl_->wake.data = impl_.get();
  uv_async_init(&impl_->loop, &impl_->wake,
                [](uv_async_t* handle) { static_cast<Impl*>(handle->data)->runPosted(); });
}

ReactorLoop::~ReactorLoop() {
  {
    const ActivityLock lock;
    impl_->posted.clear();
  }
  uv_close(reinterpret_cast<uv_handle_t*>(&impl_->wake), nullptr);
  // Timers and descriptors of ours that are closing need a turn to be freed; a stop that libuv
  // still remembers costs another one. A handle that outlives the loop is its owner's fault.
  constexpr int mostTurns = 8;
  for (int turn = 0; turn < mostTurns && uv_loop_close(&impl_->loop) == UV_EBUSY; ++turn) {
    uv_run(&impl_->loop, UV_RUN_NOWAIT);
  }
}

void ReactorLoop::run() {
  impl_->thread = std::this_thread::get_id();
  impl_->runPosted();
  // libuv remembers a stop that came while it did not run; ours is the one that counts.
  while (!impl_->stopping) uv_run(&impl_->loop, UV_RUN_DEFAULT);
  impl_->stopping = false;
  impl_->thread = std::thread::id();
}

void ReactorLoop::stop() {
  impl_->stopping = true;
  uv_async_send(&impl_->wake);
}

void ReactorLoop::post(std::function<void()> work) {
  {
    const std::lock_guard guard(impl_->mutex);
    impl_->posted.push_back(std::move(work));
  }
  uv_async_send(&impl_->wake);
}

bool ReactorLoop::onThread() const { return impl_->thread.load() == std::this_thread::get_id(); }

uv_loop_s* ReactorLoop::handle() { return &impl_->loop; }

namespace {
ReactorLoop* theLoop = nullptr;
}

ReactorLoop* TheReactorLoop() { return theLoop; }
void TheReactorLoopIs(ReactorLoop* loop) { theLoop = loop; }

}  // namespace Vela
