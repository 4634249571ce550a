// The forwarder's process: one thread that follows the agent, sends late reports in time, serves
// the control socket, and ends on SIGTERM or SIGINT. Packets for the controller have their own.
#pragma once

#include <csignal>
#include <memory>
#include <string>

#include "forwarder/ControlSocket.h"
#include "forwarder/FlowPublisher.h"
#include "forwarder/ForwardingAgent.h"
#include "forwarder/Punter.h"
#include "forwarder/Traffic.h"

namespace Forwarder {

struct RunnerOptions {
  std::string stateDirectory;
  std::string name;
  Rules rules;
  TrafficOptions traffic;
  PuntOptions punt;
  bool dumpOnSignal = false;  // SIGUSR1 prints the tables on standard output
  bool verbose = false;       // a line a change on standard error
};

class Runner {
 public:
  explicit Runner(RunnerOptions options);
  ~Runner();
  // Until a signal ends it. Throws ControlError when another forwarder has this name.
  void run();

 private:
  bool handleSignals();  // false when it is time to go
  void handleAttachment();
  void handleProgress();  // within follow(), which may take a while
  void doServe();
  bool doWait();
  void doBackgroundWork();  // packets and their counts, in small slices
  void maybeSayTraffic();
  void say(const std::string& line) const;

  const RunnerOptions options_;
  ReportQueue reports_;
  ForwardingAgent agent_;
  Traffic traffic_;
  FlowPublisher publisher_;
  std::unique_ptr<Lattice::Subscriber> subscriber_;
  Punter punter_;
  ControlSocket control_;
  int signals_ = -1;
  bool attached_ = false;
  std::string saidTrouble_;
  bool saidBehind_ = false;
  std::string saidCounterTrouble_;
};

}  // namespace Forwarder
