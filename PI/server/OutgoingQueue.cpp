#include "PI/server/OutgoingQueue.h"

#include <utility>

namespace pi::server {

void OutgoingQueue::noticeIs(Message notice, size_t bytes) {
  {
    const std::lock_guard lock(mutex_);
    if (notices_.size() >= limits_.notices.messages ||
        noticeBytes_ + bytes > limits_.notices.bytes) {
      notices_.clear();
      noticeBytes_ = 0;
    }
    notices_.emplace_back(std::move(notice), bytes);
    noticeBytes_ += bytes;
  }
  changed_.notify_one();
}

bool OutgoingQueue::hasRoom(size_t bytes, Kind kind) const {
  const Share& limit = kind == &Waiting::packets ? limits_.packets : limits_.reports;
  const Share& waits = waiting_.*kind;
  const size_t left = limit.bytes - waits.bytes;
  if (closed_ || waits.messages >= limit.messages) return false;
  if (left < kOverhead || bytes > left - kOverhead) return false;
  const size_t own = waiting_.packets.bytes + waiting_.reports.bytes + bytes + kOverhead;
  return own <= limits_.own || total_.load() + bytes + kOverhead <= limits_.total;
}

// Its bytes no longer count.
void OutgoingQueue::leave(const Element& element) {
  Share& waits = waiting_.*element.kind;
  --waits.messages;
  waits.bytes -= element.bytes;
  total_.fetch_sub(element.bytes);
}

OutgoingQueue::~OutgoingQueue() {
  for (const Element& element : messages_) leave(element);
}

bool OutgoingQueue::takesReport(size_t bytes) const {
  const std::lock_guard lock(mutex_);
  return hasRoom(bytes, &Waiting::reports);
}

bool OutgoingQueue::messageIs(Message message, size_t bytes, Kind kind) {
  {
    const std::lock_guard lock(mutex_);
    if (!hasRoom(bytes, kind)) return false;
    messages_.push_back({std::move(message), bytes + kOverhead, kind});
    Share& waits = waiting_.*kind;
    ++waits.messages;
    waits.bytes += bytes + kOverhead;
    total_.fetch_add(bytes + kOverhead);
  }
  changed_.notify_one();
  return true;
}

void OutgoingQueue::close() {
  {
    const std::lock_guard lock(mutex_);
    closed_ = true;
  }
  changed_.notify_one();
}

OutgoingQueue::Next OutgoingQueue::next() {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [this] { return closed_ || !notices_.empty() || !messages_.empty(); });
  Next next;
  if (!notices_.empty()) {
    next.message = std::move(notices_.front().first);
    noticeBytes_ -= notices_.front().second;
    notices_.pop_front();
  } else if (!messages_.empty()) {
    const Element& first = messages_.front();
    next.message = first.message;
    leave(first);
    messages_.pop_front();
  }
  next.more = !notices_.empty() || !messages_.empty();
  return next;
}

}  // namespace pi::server
