#include "PI/server/SendDeadlines.h"

#include <grpcpp/server_context.h>

#include <algorithm>

#include "PI/server/Limits.h"
#include "PI/server/Thread.h"

namespace pi::server {

SendDeadlines::SendDeadlines() : watcher_(startThread([this] { watch(); })) {}

SendDeadlines::~SendDeadlines() {
  {
    const std::lock_guard lock(mutex_);
    stopped_ = true;
  }
  changed_.notify_all();
  watcher_.join();
}

SendDeadlines::Sending::Sending(SendDeadlines& deadlines, grpc::ServerContext& context)
    : deadlines_(deadlines), context_(&context) {
  const auto until = Clock::now() + limits().takeWithin;
  const std::lock_guard lock(deadlines_.mutex_);
  deadlines_.until_[context_] = until;
  if (deadlines_.sleeps_) deadlines_.changed_.notify_all();
}

SendDeadlines::Sending::~Sending() {
  const std::lock_guard lock(deadlines_.mutex_);
  deadlines_.until_.erase(context_);
}

void SendDeadlines::watch() {
  std::unique_lock lock(mutex_);
  while (!stopped_) {
    const auto next = cancelLate(Clock::now());
    sleeps_ = !next;
    if (next) {
      changed_.wait_until(lock, *next);
    } else {
      changed_.wait(lock, [this] { return stopped_ || !until_.empty(); });
    }
  }
}

// Returns when to look again; nothing: once something is sent.
std::optional<SendDeadlines::Clock::time_point> SendDeadlines::cancelLate(Clock::time_point now) {
  std::optional<Clock::time_point> next;
  for (auto one = until_.begin(); one != until_.end();) {
    if (one->second > now) {
      next = std::min(one->second, next.value_or(one->second));
      ++one;
      continue;
    }
    one->first->TryCancel();
    one = until_.erase(one);
  }
  return next;
}

}  // namespace pi::server
