#include "platform/vela/Timer.h"

#include <uv.h>

#include <utility>

#include "platform/vela/ActivityLock.h"

namespace Vela {

struct Timer::Impl {
  uv_timer_t timer;
  std::function<void()> expired;
};

Timer::Timer(ReactorLoop& loop, std::function<void()> expired) : impl_(new Impl) {
  impl_->expired = std::move(expired);
  impl_->timer.data = impl_;
  uv_timer_init(loop.handle(), &impl_->timer);
}

Timer::~Timer() {
  uv_close(reinterpret_cast<uv_handle_t*>(&impl_->timer),
           [](uv_handle_t* handle) { delete static_cast<Impl*>(handle->data); });
}

void Timer::start(std::chrono::milliseconds delay, std::chrono::milliseconds period) {
  uv_update_time(impl_->timer.loop);  // a long turn would make the timer expire early
  uv_timer_start(
      &impl_->timer,
      [](uv_timer_t* timer) {
        const ActivityLock lock;
        const auto expired = static_cast<Impl*>(timer->data)->expired;  // may destroy the timer
        expired();
      },
      delay.count(), period.count());
}

void Timer::stop() { uv_timer_stop(&impl_->timer); }

}  // namespace Vela
