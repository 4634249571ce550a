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

#include "forwarder/control/Commands.h"
#include "forwarder/table/RowText.h"
#include "platform/vela/Scheduling.h"

namespace Forwarder {
namespace {

using std::chrono::milliseconds;

// An attached agent wakes us; an agent that appears cannot.
constexpr milliseconds detachedTick{20};
constexpr milliseconds attachedTick{1000};
// The agent waits no longer than this while we make packets.
constexpr std::chrono::microseconds trafficSlice{200};

// The agent's batches wait for us.
constexpr std::chrono::microseconds turn{100};

struct Stopped {};

int openSignals() {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : {SIGTERM, SIGINT, SIGUSR1}) sigaddset(&set, signal);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  signal(SIGPIPE, SIG_IGN);  // the reader of our output may leave
  return signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
}

}  // namespace

Runner::Runner(RunnerOptions options)
    : options_(std::move(options)),
      agent_(reports_),
      traffic_(agent_),
      publisher_(options_.stateDirectory, options_.name, agent_.flows(),
                 [this] { republishFlows(); }),
      subscriber_(Lattice::Subscriber::create(options_.stateDirectory, options_.name, agent_)),
      punter_(options_.stateDirectory, options_.punt,
              [this](const std::string& line) { say(line); }),
      control_(controlPath(options_.stateDirectory, options_.name),
               [this](std::string_view line) {
                 return runCommand({.agent = agent_,
                                    .reports = reports_,
                                    .attached = subscriber_->attached(),
                                    .sequence = subscriber_->sequence(),
                                    .traffic = &traffic_,
                                    .punter = &punter_,
                                    .packets = forwarding_ ? &forwarding_->packets() : nullptr,
                                    .engines = forwarding_ ? &forwarding_->slot() : nullptr},
                                   line);
               }),
      signals_(openSignals()) {
  reports_.subscriberIs(subscriber_.get());
  agent_.progressIs([this] { handleProgress(); });
  agent_.countsSetIs([this] { publisher_.publishAll(FlowPublisher::Clock::now()); });
  if (options_.verbose) agent_.logIs([this](const std::string& line) { say(line); });
  agent_.rulesIs(options_.rules);
  subscriber_->learnsTypesIs(true);
  subscriber_->readsAheadIs(true);
  traffic_.optionsIs(options_.traffic);
  if (options_.forwarding) {
    forwarding_ =
        std::make_unique<Forwarding>(*options_.forwarding, options_.stateDirectory, agent_.flows(),
                                     [this](const std::string& line) { say(line); });
    agent_.planeIs(&forwarding_->plane());
    subscriber_->appliesAtOnceIs(true);
    subscriber_->answersQuestionsIs(true);
    subscriber_->tellsLastHitsIs(true);
    forwarding_->start();  // signals are blocked by now, for its threads, too
  }
  if (options_.punt.listens()) punter_.start();  // signals are blocked by now, for its threads too
}

Runner::~Runner() {
  reports_.subscriberIs(nullptr);
  if (signals_ >= 0) close(signals_);
}

void Runner::run() try {
  // The agent waits for us when it rings: its changes go first, and signals and clients are served
  // only when they have come, or once in a while.
  Vela::runInTurnsOf(turn);
  bool agentOnly = false;
  bool saidReady = false;
  while (agentOnly || handleSignals()) {
    maybeSayAlive();
    if (!agentOnly) {
      control_.maybeListen();
      doServe();
    }
    const bool busy = subscriber_->attached() || traffic_.running();
    doFollow(busy ? milliseconds(0) : detachedTick);
    handleAttachment();
    reports_.sendDue();
    doBackgroundWork();
    if (!saidReady) saidReady = manager_.ready();
    agentOnly = busy && doWait();
  }
} catch (const Stopped&) {
  // In the middle of a long catch-up. The forwarder keeps nothing on disk, so nothing is lost.
}

void Runner::doFollow(milliseconds timeout) {
  subscriber_->follow(timeout);
  if (!forwarding_) return;
  maybeCheckPlane();
  forwarding_->work(Forwarding::Clock::now(), *subscriber_);
}

// The agent asks for the program of a push once its rows are as they should be. It may have died
// before that.
void Runner::maybeCheckPlane() {
  constexpr std::chrono::seconds patience{2};
  const auto now = Forwarding::Clock::now();
  if (now < planeCheckDue_) return;
  planeCheckDue_ = now + patience;
  if (std::exchange(planeWasStale_, forwarding_->plane().hasNewPush()) && planeWasStale_) {
    agent_.checkPlane();
  }
}

void Runner::republishFlows() {
  agent_.republishFlows();
  if (forwarding_) forwarding_->plane().retellCounts();
}

void Runner::handleProgress() {
  maybeSayAlive();
  if (!handleSignals()) throw Stopped();
  doServe();
  reports_.sendDue();
}

void Runner::doServe() {
  punter_.clearAnswerSignal();
  if (forwarding_) forwarding_->packets().clearAnswerSignal();
  control_.serve();
}

void Runner::doBackgroundWork() {
  traffic_.work(trafficSlice);
  publisher_.work(FlowPublisher::Clock::now(), forwarding_ || agent_.hasCounters());
  maybeSayTraffic();
}

void Runner::maybeSayTraffic() {
  const TrafficPace& pace = traffic_.pace();
  if (pace.behind() != saidBehind_) {
    saidBehind_ = pace.behind();
    const std::string of = std::to_string(pace.achievedRate()) + " of " +
                           std::to_string(traffic_.options().rate) + " packets a second";
    say(saidBehind_ ? "traffic falls behind: " + of : "traffic keeps up again: " + of);
  }
  if (publisher_.trouble() == saidCounterTrouble_) return;
  saidCounterTrouble_ = publisher_.trouble();
  say(saidCounterTrouble_.empty() ? "counters are published again" : saidCounterTrouble_);
}

// Returns whether the agent alone has rung.
bool Runner::doWait() {
  std::vector<pollfd> descriptors{{signals_, POLLIN, 0}, {punter_.answerDescriptor(), POLLIN, 0}};
  control_.pollDescriptors(descriptors);
  if (forwarding_) forwarding_->pollDescriptors(descriptors);
  const int events = subscriber_->sending() ? POLLIN | POLLOUT : POLLIN;
  descriptors.push_back({subscriber_->descriptor(), static_cast<short>(events), 0});
  milliseconds timeout = subscriber_->attached() ? attachedTick : detachedTick;
  const auto now = ReportQueue::Clock::now();
  std::optional<Forwarding::Clock::time_point> newsDue;
  if (forwarding_) newsDue = forwarding_->nextDue();
  for (const auto& due : {reports_.nextDue(), traffic_.nextDue(), publisher_.nextDue(), newsDue}) {
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
    if (info.ssi_signo != SIGUSR1) {
      Vela::ServiceManager::stopping();
      return false;
    }
    if (!options_.dumpOnSignal) continue;
    for (const ProgrammedTable* table : agent_.tables()) {
      const std::string text = dumpText(*table);
      std::fwrite(text.data(), 1, text.size(), stdout);
    }
    std::fflush(stdout);
  }
  return true;
}

// Says each state once, however often it is tried.
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
  manager_.statusIs(attached ? "attached to the agent" : "waits for the agent: " + trouble);
}

// A turn without work takes a second.
void Runner::maybeSayAlive() {
  const auto period = manager_.alivePeriod();
  if (!period) return;
  const auto now = Forwarding::Clock::now();
  if (now < aliveDue_) return;
  aliveDue_ = now + *period;
  manager_.alive();
}

void Runner::say(const std::string& line) const {
  std::fprintf(stderr, "korvel-forwarder %s: %s\n", options_.name.c_str(), line.c_str());
}

}  // namespace Forwarder
