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

// Thread-safe. Its thread sleeps while nothing is sent.
class SendDeadlines {
 public:
  SendDeadlines();
  ~SendDeadlines();  // when nothing is being sent

  // A scope in which the call sends a message. The call is cancelled when that takes longer than
  // Limits::takeWithin. One at a time for a call.
  class Sending {
   public:
    Sending(SendDeadlines& deadlines, grpc::ServerContext& context);
    ~Sending();
    Sending(const Sending&) = delete;
    Sending& operator=(const Sending&) = delete;

   private:
    SendDeadlines& deadlines_;
    grpc::ServerContext* const context_;
  };

 private:
  using Clock = std::chrono::steady_clock;
  void watch();
  std::optional<Clock::time_point> cancelLate(Clock::time_point now);

  std::mutex mutex_;
  std::condition_variable changed_;
  bool stopped_ = false;
  bool sleeps_ = false;  // until something is sent
  std::map<grpc::ServerContext*, Clock::time_point> until_;
  std::thread watcher_;
};

}  // namespace pi::server
