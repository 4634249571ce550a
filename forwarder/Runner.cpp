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
constexpr milliseconds detachedTick{50};
constexpr milliseconds attachedTick{1000};

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
      subscriber_(Lattice::Subscriber::create(options_.stateDirectory, options_.name, agent_)),
      control_(controlPath(options_.stateDirectory, options_.name),
               [this](std::string_view line) {
                 return answered(agent_, reports_,
                                 {subscriber_->attached(), subscriber_->sequence()}, line);
               }),
      signals_(openSignals()) {
  reports_.subscriberIs(subscriber_.get());
  if (options_.verbose) agent_.logIs([this](const std::string& line) { say(line); });
  agent_.rulesIs(options_.rules);
}

Runner::~Runner() {
  reports_.subscriberIs(nullptr);
  if (signals_ >= 0) close(signals_);
}

void Runner::run() {
  while (handleSignals()) {
    control_.maybeListen();
    control_.serve();
    subscriber_->follow(milliseconds(0));
    handleAttachment();
    reports_.sendDue();
    doWait();
  }
}

void Runner::doWait() {
  std::vector<pollfd> descriptors{{signals_, POLLIN, 0}};
  control_.pollDescriptors(descriptors);
  if (subscriber_->descriptor() >= 0) descriptors.push_back({subscriber_->descriptor(), POLLIN, 0});
  milliseconds timeout = subscriber_->descriptor() >= 0 ? attachedTick : detachedTick;
  if (const auto due = reports_.nextDue()) {
    const auto left = std::chrono::ceil<milliseconds>(*due - ReportQueue::Clock::now());
    timeout = std::clamp(left, milliseconds(0), timeout);
  }
  poll(descriptors.data(), descriptors.size(), static_cast<int>(timeout.count()));
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
  if (attached) {
    if (!attached_) say("attached to the agent at " + options_.stateDirectory);
    waitingFor_.clear();
  } else if (const std::string trouble = subscriber_->trouble();
             attached_ || waitingFor_.empty() || trouble != waitingFor_) {
    waitingFor_ = trouble.empty() ? "no agent" : trouble;
    say("waiting for the agent at " + options_.stateDirectory + ": " + waitingFor_);
  }
  attached_ = attached;
}

void Runner::say(const std::string& line) const {
  std::fprintf(stderr, "korvel-forwarder %s: %s\n", options_.name.c_str(), line.c_str());
}

}  // namespace Forwarder
