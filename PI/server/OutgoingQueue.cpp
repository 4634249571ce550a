#include "PI/server/OutgoingQueue.h"

#include <utility>

namespace pi::server {

void OutgoingQueue::noticeIs(Message notice) {
  {
    const std::lock_guard lock(mutex_);
    if (notices_.size() >= limits_.notices) notices_.clear();
    notices_.push_back(std::move(notice));
  }
  changed_.notify_one();
}

bool OutgoingQueue::messageIs(Message message, size_t bytes) {
  {
    const std::lock_guard lock(mutex_);
    if (closed_ || messages_.size() >= limits_.messages || bytes > limits_.bytes - bytes_) {
      return false;
    }
    messages_.push_back({std::move(message), bytes});
    bytes_ += bytes;
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

OutgoingQueue::Message OutgoingQueue::next() {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [this] { return closed_ || !notices_.empty() || !messages_.empty(); });
  Message next;
  if (!notices_.empty()) {
    next = std::move(notices_.front());
    notices_.pop_front();
  } else if (!messages_.empty()) {
    next = std::move(messages_.front().message);
    bytes_ -= messages_.front().bytes;
    messages_.pop_front();
  }
  return next;
}

}  // namespace pi::server
