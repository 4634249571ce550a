// The streams that are open. Thread-safe.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <set>

namespace pi::server {

class ControllerStream;

class StreamSet {
 public:
  // Borrows the stream until streamDel().
  void streamIs(ControllerStream& stream);
  void streamDel(ControllerStream& stream);

  // Ends all streams: lets each send what is queued for it, cancels those that have not ended after
  // the grace, and waits until all have ended. A stream that comes later is ended at once.
  void endAll(std::chrono::milliseconds grace);

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool ending_ = false;
  std::set<ControllerStream*> streams_;
};

}  // namespace pi::server
