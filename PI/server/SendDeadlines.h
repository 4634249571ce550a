// Ends calls whose clients stop reading: each such call holds a thread, a place under the limit of
// calls, and the snapshot that it sends.
#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <optional>
#include <thread>

namespace grpc {
class ServerContext;
}

namespace pi::server {

enum class CallKind { write, read, other };

// Thread-safe. Its thread sleeps while nothing is sent.
class SendDeadlines {
 public:
  SendDeadlines();
  ~SendDeadlines();  // when nothing is being sent

  // A scope in which a call of the kind sends a message. The call is cancelled when that takes
  // longer than Limits::takeWithin, or when endStalled() chooses it. One at a time for a call.
  class Sending {
   public:
    Sending(SendDeadlines& deadlines, grpc::ServerContext& context, CallKind kind);
    ~Sending();
    Sending(const Sending&) = delete;
    Sending& operator=(const Sending&) = delete;

   private:
    SendDeadlines& deadlines_;
    grpc::ServerContext* const context_;
  };

  // Cancels the call of the kind whose client has left a message for the longest time, and for
  // longer than Limits::stalledAfter. False: there is no such call.
  bool endStalled(CallKind kind);

 private:
  using Clock = std::chrono::steady_clock;
  struct Send {
    CallKind kind;
    Clock::time_point since;
    Clock::time_point until;
  };
  void watch();
  std::optional<Clock::time_point> cancelLate(Clock::time_point now);

  std::mutex mutex_;  // guards stopped_, sleeps_ and until_
  std::condition_variable changed_;
  bool stopped_ = false;
  Clock::time_point wakes_ = Clock::time_point::min();  // when watch() looks again
  std::map<grpc::ServerContext*, Send> sends_;
  std::thread watcher_;
};

}  // namespace pi::server
