// Messages that wait to be sent on one controller's stream: bounded, so that a slow controller
// costs no more memory and blocks nobody. Thread-safe; only next() waits.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <utility>

namespace p4::v1 {
class StreamMessageResponse;
}

namespace pi::server {

class OutgoingQueue {
 public:
  using Message = std::shared_ptr<const p4::v1::StreamMessageResponse>;

  // A message counts with its serialized bytes and kOverhead, about the rest of its memory.
  static constexpr size_t kOverhead = 512;
  struct Share {
    size_t messages;
    size_t bytes;
  };
  struct Limits {
    Share notices{64, 128 << 10};
    Share packets{1 << 16, 64 << 20};
    Share reports{256, 1 << 20};  // the first to go: they never take the room of packets
    // Shared by all queues of one Total, beside each queue's own share.
    size_t total = 256 << 20;
    size_t own = 256 << 10;
  };
  using Total = std::atomic<size_t>;  // bytes

  // `total` outlives the queue.
  explicit OutgoingQueue(Total& total) : total_(total) {}
  OutgoingQueue(Total& total, Limits limits) : total_(total), limits_(limits) {}
  ~OutgoingQueue();

  // An arbitration notice: goes out before messages and is never refused; when too many wait, only
  // the newest stays, which tells the whole state.
  void noticeIs(Message notice, size_t bytes);
  // A packet for the controller; a report on one of its requests. False, and the message is
  // dropped, when too many of the kind wait or after close().
  bool packetIs(Message packet, size_t bytes) {
    return messageIs(std::move(packet), bytes, &Waiting::packets);
  }
  bool reportIs(Message report, size_t bytes) {
    return messageIs(std::move(report), bytes, &Waiting::reports);
  }
  // Whether a report of so many bytes would be taken now.
  bool takesReport(size_t bytes) const;
  // Messages in the queue still go out.
  void close();

  struct Next {
    Message message;    // null: the queue is closed and empty
    bool more = false;  // another one waits behind it
  };
  Next next();  // waits for something to send

 private:
  // How much waits, of which kind.
  struct Waiting {
    Share packets{0, 0};
    Share reports{0, 0};
  };
  using Kind = Share Waiting::*;
  struct Element {
    Message message;
    size_t bytes;
    Kind kind;
  };

  bool messageIs(Message message, size_t bytes, Kind kind);
  bool hasRoom(size_t bytes, Kind kind) const;
  void leave(const Element& element);

  Total& total_;
  const Limits limits_;
  mutable std::mutex mutex_;  // guards the members below
  std::condition_variable changed_;
  std::deque<std::pair<Message, size_t>> notices_;  // and their bytes
  size_t noticeBytes_ = 0;
  std::deque<Element> messages_;
  Waiting waiting_;
  bool closed_ = false;
};

}  // namespace pi::server
