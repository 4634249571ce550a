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

SendDeadlines::Sending::Sending(SendDeadlines& deadlines, grpc::ServerContext& context,
                                CallKind kind)
    : deadlines_(deadlines), context_(&context) {
  const auto now = Clock::now();
  const auto until = now + limits().takeWithin;
  const std::lock_guard lock(deadlines_.mutex_);
  deadlines_.sends_[context_] = {kind, now, until};
  if (until < deadlines_.wakes_) deadlines_.changed_.notify_all();
}

SendDeadlines::Sending::~Sending() {
  const std::lock_guard lock(deadlines_.mutex_);
  deadlines_.sends_.erase(context_);
}

void SendDeadlines::watch() {
  std::unique_lock lock(mutex_);
  while (!stopped_) {
    const auto next = cancelLate(Clock::now());
    wakes_ = next.value_or(Clock::time_point::max());
    if (next) {
      changed_.wait_until(lock, *next);
    } else {
      changed_.wait(lock, [this] { return stopped_ || !sends_.empty(); });
    }
  }
}

// Returns when to look again; nothing: once something is sent.
std::optional<SendDeadlines::Clock::time_point> SendDeadlines::cancelLate(Clock::time_point now) {
  std::optional<Clock::time_point> next;
  for (auto one = sends_.begin(); one != sends_.end();) {
    const auto until = one->second.until;
    if (until > now) {
      next = std::min(until, next.value_or(until));
      ++one;
      continue;
    }
    one->first->TryCancel();
    one = sends_.erase(one);
  }
  return next;
}

bool SendDeadlines::endStalled(CallKind kind) {
  const auto latest = Clock::now() - limits().stalledAfter;
  const std::lock_guard lock(mutex_);
  auto stalled = sends_.end();
  for (auto one = sends_.begin(); one != sends_.end(); ++one) {
    if (one->second.kind != kind || one->second.since > latest) continue;
    if (stalled == sends_.end() || one->second.since < stalled->second.since) stalled = one;
  }
  if (stalled == sends_.end()) return false;
  stalled->first->TryCancel();
  sends_.erase(stalled);
  return true;
}

}  // namespace pi::server
