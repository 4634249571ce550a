// Punts packets to the controller: those that arrive on ports, and those made on request.
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

#include "forwarder/Commands.h"
#include "forwarder/CpuDevice.h"
#include "forwarder/PortSocket.h"
#include "forwarder/PuntOptions.h"
#include "forwarder/PuntView.h"

namespace Forwarder {

// A thread of its own does all the work, so that packets and tables do not wait for each other; all
// that is public is for the one that made it. Works on the devices of its network namespace, and
// needs CAP_NET_RAW there.
class Punter {
 public:
  using Clock = std::chrono::steady_clock;
  using Log = std::function<void(const std::string& line)>;  // called by the punting thread

  Punter(std::string stateDirectory, PuntOptions options, Log log);
  ~Punter();  // packets under way are dropped
  Punter(const Punter&) = delete;
  Punter& operator=(const Punter&) = delete;

  void start();  // without effect while running
  bool started() const { return thread_.joinable(); }
  const PuntOptions& options() const { return options_; }
  // Throws RuleError when packet_in is known and has no such field, or not the room.
  void valuesIs(PuntValues values);
  const PuntCounts& counts() const { return counts_; }
  std::string placesText() const;  // lines: where packets come from and go, and what is wrong there

  // Starts if need be. The answer comes when the packets are punted or dropped; whoever lets go of
  // it before ends them. Throws RuleError: too many are under way.
  Answer requestIs(PuntRequest request);
  // Readable once an answer is there; call answersSeen() before asking for answers.
  int answerDescriptor() const { return answered_; }
  void answersSeen();

 private:
  struct Port {
    std::string device;
    std::unique_ptr<PortSocket> socket;
    std::optional<std::string> header;  // nothing: packets are dropped
    std::string trouble;
  };
  struct Request {
    PuntRequest what;
    Clock::time_point since;  // it was made; later, when its first packet was
    bool begun = false;
    uint64_t made = 0;
    uint64_t punted = 0;
    std::string trouble;           // of the last that was dropped
    std::optional<Answer> answer;  // guarded by the mutex
  };
  using Requests = std::list<std::shared_ptr<Request>>;

  // The thread's.
  void run();
  void doWait();
  void doRefresh();
  void doReadHeader();
  void doPlanPorts();
  void doClosePort(Port& port);
  void doOpenPort(Port& port);
  void doReceive();
  void receiveFrom(Port& port);
  bool wanted(const Frame& frame) const;
  void doRequests();
  bool ended(Request& request);
  bool maybeBegin(Request& request);
  void makePackets(Request& request, size_t count);
  uint64_t due(const Request& request) const;
  void answer(Request& request, Answer with);
  std::string requestTrouble(uint32_t port) const;
  std::optional<std::string> headerOf(uint32_t port) const;
  void doSayTroubles();
  void maybeSay(const std::string& of, const std::string& trouble, const std::string& good);
  void doPublishPlaces();

  const std::string stateDirectory_;
  const Log log_;
  int wake_ = -1;      // eventfd: requests, options or the picture have changed
  int answered_ = -1;  // eventfd
  PuntCounts counts_;
  std::atomic<bool> stopping_{false};
  PuntOptions options_;  // the maker's; but for the values it stays as it is

  mutable std::mutex mutex_;  // guards what follows
  PuntValues values_;
  Requests asked_;  // not seen by the thread yet
  size_t underWay_ = 0;
  std::string places_;
  std::shared_ptr<const PuntPicture> known_;

  // The thread's own.
  std::unique_ptr<PuntView> view_;
  std::shared_ptr<const PuntPicture> picture_;
  PuntHeader header_;
  std::string headerTrouble_ = "the agent has not been asked yet";
  std::map<uint32_t, Port> ports_;
  Requests requests_;
  CpuDevice device_;
  FrameBatch batch_;
  std::vector<pollfd> polled_;
  std::vector<Port*> polledPorts_;           // of polled_, after the first
  std::map<std::string, std::string> said_;  // what has trouble -> the trouble
  Clock::time_point refreshed_{};

  std::thread thread_;
};

}  // namespace Forwarder
