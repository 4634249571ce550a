// What waits to be sent on one controller's stream: bounded, so that a slow controller costs no
// more memory and blocks nobody. Thread-safe; only next() waits.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>

namespace p4::v1 {
class StreamMessageResponse;
}

namespace pi::server {

class OutgoingQueue {
 public:
  using Message = std::shared_ptr<const p4::v1::StreamMessageResponse>;

  struct Limits {
    size_t notices = 64;
    size_t messages = 4096;
    size_t bytes = 16 << 20;  // of messages
  };

  OutgoingQueue() = default;
  explicit OutgoingQueue(Limits limits) : limits_(limits) {}

  // An arbitration notice: goes out before messages and is never refused; when too many wait, only
  // the newest stays, which says all that still holds.
  void noticeIs(Message notice);
  // A packet or a report; false, and the message dropped, when too many wait or after close().
  bool messageIs(Message message, size_t bytes);
  // What is in the queue still goes out.
  void close();

  // Waits for something to send; null when the queue is closed and empty.
  Message next();

 private:
  struct Waiting {
    Message message;
    size_t bytes;
  };

  const Limits limits_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<Message> notices_;
  std::deque<Waiting> messages_;
  size_t bytes_ = 0;
  bool closed_ = false;
};

}  // namespace pi::server
