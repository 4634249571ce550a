// The loop, which waits for signals, the control socket and the agent at once.
#include "forwarder/Runner.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <utility>
#include <vector>

#include "forwarder/RowText.h"

namespace Forwarder {
namespace {

using std::chrono::milliseconds;

// An agent that appears has no way to wake us; one that is there has.
constexpr milliseconds detachedTick{20};
constexpr milliseconds attachedTick{1000};
// The agent waits no longer than this for us to look up from making packets.
constexpr std::chrono::microseconds trafficSlice{200};

struct Stopped {};

int openSignals() {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : {SIGTERM, SIGINT, SIGUSR1}) sigaddset(&set, signal);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  signal(SIGPIPE, SIG_IGN);  // whoever reads our output may leave
  return signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
}

}  // namespace

Runner::Runner(RunnerOptions options)
    : options_(std::move(options)),
      agent_(reports_),
      traffic_(agent_),
      publisher_(options_.stateDirectory, options_.name, agent_.flows(),
                 [this] { agent_.doRepublishFlows(); }),
      subscriber_(Lattice::Subscriber::create(options_.stateDirectory, options_.name, agent_)),
      punter_(options_.stateDirectory, options_.punt,
              [this](const std::string& line) { say(line); }),
      control_(controlPath(options_.stateDirectory, options_.name),
               [this](std::string_view line) {
                 return answered(agent_, reports_,
                                 {subscriber_->attached(), subscriber_->sequence()}, line,
                                 &traffic_, &punter_);
               }),
      signals_(openSignals()) {
  reports_.subscriberIs(subscriber_.get());
  agent_.progressIs([this] { handleProgress(); });
  if (options_.verbose) agent_.logIs([this](const std::string& line) { say(line); });
  agent_.rulesIs(options_.rules);
  traffic_.optionsIs(options_.traffic);
  if (options_.punt.listens()) punter_.start();  // signals are blocked by now, for its threads too
}

Runner::~Runner() {
  reports_.subscriberIs(nullptr);
  if (signals_ >= 0) close(signals_);
}

void Runner::run() try {
  // A batch is waiting for us when the agent rings: signals and clients are looked at only when
  // they have come, or once in a while.
  bool agentOnly = false;
  while (agentOnly || handleSignals()) {
    if (!agentOnly) {
      control_.maybeListen();
      doServe();
    }
    const bool busy = subscriber_->attached() || traffic_.running();
    subscriber_->follow(busy ? milliseconds(0) : detachedTick);
    handleAttachment();
    reports_.sendDue();
    doBackgroundWork();
    agentOnly = busy && doWait();
  }
} catch (const Stopped&) {
  // In the middle of a long way to catch up; nothing that is lost was kept anyway.
}

void Runner::handleProgress() {
  if (!handleSignals()) throw Stopped();
  doServe();
  reports_.sendDue();
}

void Runner::doServe() {
  punter_.answersSeen();
  control_.serve();
}

void Runner::doBackgroundWork() {
  traffic_.work(trafficSlice);
  publisher_.work(FlowPublisher::Clock::now(), agent_.anyCounted());
  maybeSayTraffic();
}

void Runner::maybeSayTraffic() {
  if (traffic_.behind() != saidBehind_) {
    saidBehind_ = traffic_.behind();
    const std::string of = std::to_string(traffic_.achievedRate()) + " of " +
                           std::to_string(traffic_.options().rate) + " packets a second";
    say(saidBehind_ ? "traffic falls behind: " + of : "traffic keeps up again: " + of);
  }
  if (publisher_.trouble() == saidCounterTrouble_) return;
  saidCounterTrouble_ = publisher_.trouble();
  say(saidCounterTrouble_.empty() ? "counters are published again" : saidCounterTrouble_);
}

// Answers whether the agent was the only one to come.
bool Runner::doWait() {
  std::vector<pollfd> descriptors{{signals_, POLLIN, 0}, {punter_.answerDescriptor(), POLLIN, 0}};
  control_.pollDescriptors(descriptors);
  const int events = subscriber_->sending() ? POLLIN | POLLOUT : POLLIN;
  descriptors.push_back({subscriber_->descriptor(), static_cast<short>(events), 0});
  milliseconds timeout = subscriber_->attached() ? attachedTick : detachedTick;
  const auto now = ReportQueue::Clock::now();
  for (const auto& due : {reports_.nextDue(), traffic_.nextDue(), publisher_.nextDue()}) {
    if (!due) continue;
    const auto left = std::chrono::ceil<milliseconds>(*due - now);
    timeout = std::clamp(left, milliseconds(0), timeout);
  }
  const int ready = poll(descriptors.data(), descriptors.size(), static_cast<int>(timeout.count()));
  return ready == 1 && descriptors.back().revents != 0;
}

bool Runner::handleSignals() {
  signalfd_siginfo info;
  while (read(signals_, &info, sizeof info) == sizeof info) {
    if (info.ssi_signo != SIGUSR1) return false;
    if (!options_.dumpOnSignal) continue;
    for (const auto& [name, table] : agent_.tables()) {
      const std::string text = dumpText(*table);
      std::fwrite(text.data(), 1, text.size(), stdout);
    }
    std::fflush(stdout);
  }
  return true;
}

// Says each thing once, however often it is tried.
void Runner::handleAttachment() {
  const bool attached = subscriber_->attached();
  const std::string& trouble = subscriber_->trouble();
  if (attached && !attached_) say("attached to the agent at " + options_.stateDirectory);
  if (attached == attached_ && trouble == saidTrouble_) return;
  if (!attached) {
    say("waiting for the agent at " + options_.stateDirectory + ": " + trouble);
  } else if (!trouble.empty()) {
    say(trouble);
  }
  attached_ = attached;
  saidTrouble_ = trouble;
}

void Runner::say(const std::string& line) const {
  std::fprintf(stderr, "korvel-forwarder %s: %s\n", options_.name.c_str(), line.c_str());
}

}  // namespace Forwarder
