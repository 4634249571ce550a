// Punts packets to the controller: packets that arrive on ports, and packets made on request.
#pragma once

#include <poll.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "forwarder/base/Answer.h"
#include "forwarder/punt/PuntJob.h"
#include "forwarder/punt/PuntOptions.h"
#include "forwarder/punt/PuntPorts.h"
#include "forwarder/punt/PuntSender.h"
#include "forwarder/punt/PuntView.h"
#include "platform/vela/EventDescriptor.h"

namespace Forwarder {

// Threads: the public functions are for the thread that made the punter. A thread of its own does
// all the work, so that packets and tables do not wait for each other.
// Errors: trouble with devices or the agent is logged once and kept in placesText(); the work goes
// on when it ends. The devices belong to the process's network namespace; CAP_NET_RAW is needed.
// Lifetime: the destructor drops the packets under way and joins the thread.
class Punter {
 public:
  using Clock = std::chrono::steady_clock;
  using Log = std::function<void(const std::string& line)>;  // called by the punting thread

  Punter(std::string stateDirectory, PuntOptions options, Log log);
  ~Punter();
  Punter(const Punter&) = delete;
  Punter& operator=(const Punter&) = delete;

  void start();  // without effect while running
  bool running() const { return thread_.joinable(); }
  const PuntOptions& options() const { return options_; }
  // Throws CommandError when packet_in is known and has no such field, or no room for the value.
  void valuesIs(PuntValues values);
  const PuntCounts& counts() const { return counts_; }
  std::string placesText()
      const;  // lines: the device, the header and the ports, with their trouble

  // Starts if need be. The answer comes when the packets are punted or dropped; destroying it
  // earlier ends the request. Throws CommandError when too many requests are under way.
  Answer requestPackets(PuntRequest request);
  // Readable once a later answer is complete; call clearAnswerSignal() before asking for answers.
  int answerDescriptor() const { return answerSignal_.get(); }
  void clearAnswerSignal();

 private:
  struct Request {
    PuntJob job;
    std::optional<Answer> answer;  // guarded by the mutex
  };
  using Requests = std::list<std::shared_ptr<Request>>;

  // The thread's.
  void run();
  void doWait();
  std::chrono::nanoseconds waitTime() const;
  void maybeRefresh();
  void doReadAgent();
  void doPlanPorts();
  void doAdvanceRequests();
  bool advance(Request& request);  // true when it has its answer
  void doLogTroubles();
  void maybeLog(const std::string& place, const std::string& trouble, const std::string& good);
  void doPublishPlaces();

  const std::string stateDirectory_;
  const Log log_;
  const Vela::EventDescriptor wakeSignal_;  // requests, options or the picture have changed
  const Vela::EventDescriptor answerSignal_;
  PuntCounts counts_;
  std::atomic<bool> stopping_{false};
  PuntOptions options_;  // the maker's; the thread reads its ports, which stay as they are

  mutable std::mutex mutex_;  // guards the members up to the next blank line
  PuntValues values_;
  Requests newRequests_;  // that the thread has not taken yet
  size_t requestCount_ = 0;
  std::string places_;
  std::shared_ptr<const PuntPicture> knownPicture_;

  // The thread's own.
  std::unique_ptr<PuntView> view_;
  std::shared_ptr<const PuntPicture> picture_;
  PuntSender sender_;
  PuntPorts ports_;
  Requests requests_;
  std::vector<pollfd> polled_;
  std::map<std::string, std::string> loggedTroubles_;  // by place
  Clock::time_point refreshed_{};

  std::thread thread_;
};

}  // namespace Forwarder
