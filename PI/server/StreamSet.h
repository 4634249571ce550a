// The streams that are open, and the thread that ends those whose time is up. Thread-safe.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include "PI/server/Limits.h"
#include "PI/server/OutgoingQueue.h"
#include "PI/server/StreamDeadlines.h"

namespace pi::server {

class ControllerStream;

class StreamSet {
 public:
  // Streams that have not arbitrated; the limit of those that have is the arbitration's.
  static constexpr size_t kMaxUnarbitrated = 64;

  StreamSet();
  ~StreamSet();  // when no stream is left

  // What waits on all streams together.
  OutgoingQueue::Total& outgoing() { return outgoing_; }

  // Borrows the stream until streamDel(). It is to arbitrate in time; where too many have not yet,
  // the one that has least time left is ended for it.
  void streamIs(ControllerStream& stream);
  void streamDel(ControllerStream& stream);
  void arbitratedIs(ControllerStream& stream);
  // The stream has been told to end: it is cancelled if it has not after a short grace.
  void endingIs(ControllerStream& stream);

  // Ends all streams: lets each send what is queued for it, cancels those that have not ended after
  // the grace, and waits until all have ended. A stream that comes later is ended at once.
  void endAll(std::chrono::milliseconds grace);

 private:
  void watch();
  void end(ControllerStream& stream, const std::string& reason);

  OutgoingQueue::Total outgoing_{0};
  std::mutex mutex_;
  std::condition_variable changed_;
  bool ending_ = false;
  bool stopped_ = false;
  std::set<ControllerStream*> streams_;
  StreamDeadlines<ControllerStream> deadlines_;
  std::thread watcher_;
};

}  // namespace pi::server
