// The loop on libuv: an async handle, all that other threads touch of it, has it look into the
// queues.
#include "platform/vela/ReactorLoop.h"

#include <uv.h>

#include <atomic>
#include <cassert>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "platform/vela/ActivityLock.h"
#include "platform/vela/Failure.h"

namespace Vela {

struct ReactorLoop::Impl {
  using Queue = std::vector<std::function<void()>>;
  uv_loop_t loop;
  uv_async_t wake;
  std::mutex mutex;  // guards touches and posted
  Queue touches;
  Queue posted;
  std::atomic<bool> stopping{false};
  std::atomic<std::thread::id> thread{};

  Queue take(Queue& queue) {
    const std::lock_guard guard(mutex);
    return std::exchange(queue, {});
  }
  void add(Queue& queue, std::function<void()> work) {
    {
      const std::lock_guard guard(mutex);
      queue.push_back(std::move(work));
    }
    uv_async_send(&wake);
  }
  bool mayTouch() const {
    const std::thread::id running = thread;
    return running == std::thread::id() || running == std::this_thread::get_id();
  }
  void runTouches() {
    const Queue works = take(touches);
    if (works.empty()) return;
    const ActivityLock lock;
    for (const auto& work : works) guarded(work);
  }
  void runPosted() {
    runTouches();
    for (auto& work : take(posted)) {
      const ActivityLock lock;
      guarded(work);
      work = nullptr;  // its captures are destroyed under the lock
    }
    if (stopping) uv_stop(&loop);
  }
};

ReactorLoop::ReactorLoop() : impl_(std::make_unique<Impl>()) {
  const auto succeed = [](int error) {
    if (error != 0) throw std::system_error(-error, std::generic_category(), "no event loop");
  };
  succeed(uv_loop_init(&impl_->loop));
  impl_->wake.data = impl_.get();
  succeed(uv_async_init(&impl_->loop, &impl_->wake,
                        [](uv_async_t* handle) { static_cast<Impl*>(handle->data)->runPosted(); }));
}

ReactorLoop::~ReactorLoop() {
  impl_->runTouches();
  {
    const ActivityLock lock;
    impl_->take(impl_->posted);
  }
  impl_->runTouches();
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

void ReactorLoop::post(std::function<void()> work) { impl_->add(impl_->posted, std::move(work)); }

void ReactorLoop::touch(std::function<void()> work) {
  if (!impl_->mayTouch()) return impl_->add(impl_->touches, std::move(work));
  impl_->runTouches();  // other threads' touches came first
  work();
}

bool ReactorLoop::onThread() const { return impl_->thread.load() == std::this_thread::get_id(); }

uv_loop_s* ReactorLoop::handle() {
  assert(impl_->mayTouch() && "libuv is for the loop's thread");
  return &impl_->loop;
}

namespace {
ReactorLoop* theLoop = nullptr;
}

ReactorLoop* TheReactorLoop() { return theLoop; }
void TheReactorLoopIs(ReactorLoop* loop) { theLoop = loop; }

}  // namespace Vela
