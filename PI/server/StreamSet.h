// The open streams, and the thread that ends them when their time is up. Thread-safe.
#pragma once

#include <grpcpp/support/status.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include "PI/server/Limits.h"
#include "PI/server/OutgoingQueue.h"
#include "PI/server/StreamDeadlines.h"

namespace pi::server {

class ControllerStream;
class Revocations;

// Thread-safe. Its thread cancels the streams that are late.
class StreamSet {
 public:
  // Streams that have not arbitrated; the arbitration limits the others.
  static constexpr size_t kMaxUnarbitrated = 64;

  StreamSet();
  ~StreamSet();  // when no stream is left

  // Bytes that wait on all streams together.
  OutgoingQueue::Total& outgoing() { return outgoing_; }

  // Borrows the stream until streamDel(). It is to arbitrate in time; when too many have not yet,
  // the one with the least time left is ended in its favour.
  void streamIs(ControllerStream& stream);
  void streamDel(ControllerStream& stream);
  void arbitratedIs(ControllerStream& stream);
  // The stream has been told to end: it is cancelled if it has not after a short grace.
  void endingIs(ControllerStream& stream);

  // The policy has changed: ends the streams that may not have their places in their roles.
  void handlePolicy();
  // Ends the streams of certificates that have been revoked.
  void handleRevocations(const Revocations& revocations);

  // Ends all streams: lets each send its queued messages, cancels the streams left after the grace,
  // and waits until all have ended. A stream that comes later is ended at once.
  void endAll(std::chrono::milliseconds grace);

 private:
  void watch();
  void end(ControllerStream& stream, const std::string& reason);
  void endRefused(const std::function<grpc::Status(ControllerStream&)>& judge);

  OutgoingQueue::Total outgoing_{0};
  std::mutex mutex_;  // guards ending_, stopped_, streams_ and deadlines_
  std::condition_variable changed_;
  bool ending_ = false;
  bool stopped_ = false;
  std::set<ControllerStream*> streams_;
  StreamDeadlines<ControllerStream> deadlines_;
  std::thread watcher_;
};

}  // namespace pi::server
