#include "platform/vela/Timer.h"

#include <uv.h>

#include <utility>

#include "platform/vela/ActivityLock.h"
#include "platform/vela/Failure.h"

namespace Vela {

struct Timer::Impl {
  uv_timer_t timer;
  std::function<void()> expired;  // guarded by the activity lock; empty once the owner is gone

  void handleExpired() {
    const ActivityLock lock;
    const auto work = expired;  // may destroy the timer
    if (work) guarded(work);
  }
};

Timer::Timer(ReactorLoop& loop, std::function<void()> expired) : loop_(loop), impl_(new Impl) {
  impl_->expired = std::move(expired);
  impl_->timer.data = impl_;
  loop_.touch([loop = &loop_, impl = impl_] { uv_timer_init(loop->handle(), &impl->timer); });
}

Timer::~Timer() {
  impl_->expired = nullptr;
  loop_.touch([impl = impl_] {
    uv_close(reinterpret_cast<uv_handle_t*>(&impl->timer),
             [](uv_handle_t* handle) { delete static_cast<Impl*>(handle->data); });
  });
}

void Timer::start(std::chrono::milliseconds delay, std::chrono::milliseconds period) {
  loop_.touch([impl = impl_, delay, period] {
    uv_update_time(impl->timer.loop);  // a long turn would make the timer expire early
    uv_timer_start(
        &impl->timer, [](uv_timer_t* timer) { static_cast<Impl*>(timer->data)->handleExpired(); },
        delay.count(), period.count());
  });
}

void Timer::stop() {
  loop_.touch([impl = impl_] { uv_timer_stop(&impl->timer); });
}

}  // namespace Vela
