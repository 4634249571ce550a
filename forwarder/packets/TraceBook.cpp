#include "forwarder/packets/TraceBook.h"

#include <fmt/format.h>

#include "forwarder/base/Answer.h"

namespace Forwarder {
namespace {

bool fits(const std::optional<uint32_t>& wanted, uint32_t port) {
  return !wanted || *wanted == port;
}

}  // namespace

void TraceBook::onIs(bool on, std::optional<uint32_t> port) {
  const std::lock_guard lock(mutex_);
  on_ = on;
  port_ = port;
  noteActive();
}

bool TraceBook::on() const {
  const std::lock_guard lock(mutex_);
  return on_;
}

std::string TraceBook::take() {
  const std::lock_guard lock(mutex_);
  std::string text;
  for (const std::string& one : kept_) text += one;
  kept_.clear();
  keptBytes_ = 0;
  return text;
}

TraceBook::LaterText TraceBook::request(const TraceRequest& request) {
  const auto waiting =
      std::make_shared<Waiting>(Waiting{.request = request, .end = Clock::now() + request.limit});
  const std::lock_guard lock(mutex_);
  removeDone();
  if (requests_.size() == mostRequests) {
    throw CommandError(fmt::format("trace: {} traces are under way; wait for one", mostRequests));
  }
  requests_.push_back(waiting);
  noteActive();
  return [this, waiting]() -> std::optional<std::string> {
    const std::lock_guard guard(mutex_);
    if (!waiting->done) return std::nullopt;
    return waiting->text;
  };
}

bool TraceBook::wants(uint32_t port) const {
  const std::lock_guard lock(mutex_);
  if (on_ && fits(port_, port)) return true;
  for (const auto& waiting : requests_) {
    if (fits(waiting->request.port, port)) return true;
  }
  return false;
}

bool TraceBook::add(uint32_t port, const std::string& text) {
  const std::lock_guard lock(mutex_);
  if (on_ && fits(port_, port)) {
    kept_.push_back(text);
    keptBytes_ += text.size();
    while (kept_.size() > mostKept || keptBytes_ > mostText) {
      keptBytes_ -= kept_.front().size();
      kept_.pop_front();
    }
  }
  for (const auto& waiting : requests_) {
    if (!fits(waiting->request.port, port)) continue;
    waiting->text += text;
    waiting->done =
        ++waiting->packets >= waiting->request.packets || waiting->text.size() > mostText;
  }
  return removeDone();
}

bool TraceBook::finishLate() {
  if (!active()) return false;
  const std::lock_guard lock(mutex_);
  for (const auto& waiting : requests_) {
    if (Clock::now() < waiting->end) continue;
    waiting->done = true;
    const std::chrono::duration<double> seconds = waiting->request.limit;
    waiting->text += fmt::format("{} of {} packets came in {} seconds\n", waiting->packets,
                                 waiting->request.packets, seconds.count());
  }
  return removeDone();
}

// And those that nobody waits for: the text's function holds them, too.
bool TraceBook::removeDone() {
  bool any = false;
  std::erase_if(requests_, [&](const auto& waiting) {
    any |= waiting->done;
    return waiting->done || waiting.use_count() == 1;
  });
  noteActive();
  return any;
}

void TraceBook::noteActive() {
  active_.store(on_ || !requests_.empty(), std::memory_order_relaxed);
}

}  // namespace Forwarder
