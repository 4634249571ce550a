// The forwarder's process: one thread that follows the agent, sends late reports in time, serves
// the control socket, and ends on SIGTERM or SIGINT. Packets have other threads.
#pragma once

#include <csignal>
#include <memory>
#include <optional>
#include <string>

#include "forwarder/Forwarding.h"
#include "forwarder/control/ControlSocket.h"
#include "forwarder/counters/FlowPublisher.h"
#include "forwarder/follow/ForwardingAgent.h"
#include "forwarder/punt/Punter.h"
#include "forwarder/traffic/Traffic.h"
#include "platform/lattice/Subscriber.h"
#include "platform/vela/ServiceManager.h"

namespace Forwarder {

struct RunnerOptions {
  std::string stateDirectory;
  std::string name;
  Rules rules;
  TrafficOptions traffic;
  PuntOptions punt;
  std::optional<ForwardingOptions> forwarding;  // nothing: no packet is forwarded
  bool dumpOnSignal = false;                    // SIGUSR1 prints the tables on standard output
  bool verbose = false;                         // a line a change on standard error
};

// Threads: one, from the constructor on; the constructor blocks the process's signals in it.
class Runner {
 public:
  explicit Runner(RunnerOptions options);
  ~Runner();
  // Runs until a signal ends it. Throws ControlError when another forwarder has this name.
  void run();

 private:
  bool handleSignals();  // false when a signal ends the process
  void handleAttachment();
  void doFollow(std::chrono::milliseconds timeout);
  void maybeCheckPlane();
  void republishFlows();
  void handleProgress();  // called within follow(), which may take long
  void doServe();
  bool doWait();
  void doBackgroundWork();  // packets and their counts, in small slices
  void maybeSayTraffic();
  void maybeSayAlive();
  void say(const std::string& line) const;

  const RunnerOptions options_;
  ReportQueue reports_;
  ForwardingAgent agent_;
  Traffic traffic_;
  std::unique_ptr<Forwarding> forwarding_;  // null: no packet is forwarded
  FlowPublisher publisher_;
  std::unique_ptr<Lattice::Subscriber> subscriber_;
  Punter punter_;
  ControlSocket control_;
  Forwarding::Clock::time_point planeCheckDue_{};
  bool planeWasStale_ = false;
  Vela::ServiceManager manager_;
  Forwarding::Clock::time_point aliveDue_{};
  int signals_ = -1;
  bool attached_ = false;
  std::string saidTrouble_;
  bool saidBehind_ = false;
  std::string saidCounterTrouble_;
};

}  // namespace Forwarder
