#include "forwarder/Forwarding.h"

#include <algorithm>

namespace Forwarder {
namespace {

constexpr std::chrono::seconds betweenIdleSweeps{1};

PlaneOptions withDirectory(PlaneOptions options, const std::string& stateDirectory) {
  options.stateDirectory = stateDirectory;
  return options;
}

}  // namespace

Forwarding::Forwarding(ForwardingOptions options, const std::string& stateDirectory,
                       FlowBook& flows, Log log)
    : plane_(withDirectory(std::move(options.plane), stateDirectory), slot_, digests_, flows, log),
      packets_(
          slot_, std::move(options.packets),
          {.digests = [this](const std::shared_ptr<P4::Engine>& engine,
                             std::vector<P4::DigestList>&& lists) { digests_.add(*engine, lists); },
           .portState =
               [this](uint32_t port, bool up) {
                 const std::lock_guard lock(mutex_);
                 portStates_.emplace_back(port, up);
                 signal_.ring();
               },
           .log = log}),
      view_(stateDirectory, [this] { signal_.ring(); }) {}

void Forwarding::start() { packets_.start(); }

void Forwarding::pollDescriptors(std::vector<pollfd>& descriptors) const {
  descriptors.push_back({signal_.get(), POLLIN, 0});
  descriptors.push_back({digests_.descriptor(), POLLIN, 0});
  descriptors.push_back({packets_.answerDescriptor(), POLLIN, 0});
}

Forwarding::Clock::time_point Forwarding::nextDue() const {
  return std::min(plane_.countsDue(), idleDue_);
}

void Forwarding::work(Clock::time_point now, Lattice::Subscriber& subscriber) {
  if (signal_.silence()) {
    doTakePorts();
    doTakePortStates();
  }
  plane_.maybeTellCounts(now);
  doSendNotices(now, subscriber);
}

// While the agent is away, its last mapping stays. Ports are opened before there is a program, so
// that its first packet is not lost.
void Forwarding::doTakePorts() {
  const auto picture = view_.picture();
  if (picture == picture_ || !picture || !picture->portsAreKnown) return;
  picture_ = picture;
  packets_.portsAre(picture->ports);
}

void Forwarding::doTakePortStates() {
  std::vector<std::pair<uint32_t, bool>> states;
  {
    const std::lock_guard lock(mutex_);
    states.swap(portStates_);
  }
  for (const auto& [port, up] : states) plane_.portIs(port, up);
}

// A controller may lose some: the agent's queue is bounded, too.
void Forwarding::doSendNotices(Clock::time_point now, Lattice::Subscriber& subscriber) {
  for (const DigestQueue::Digest& digest : digests_.take()) {
    subscriber.digest(digest.id, digest.message);
  }
  if (now < idleDue_) return;
  idleDue_ = now + betweenIdleSweeps;
  slot_.freeFormer();
  for (const uint64_t handle : plane_.idleEntries(PacketThread::now())) subscriber.idle(handle);
}

}  // namespace Forwarder
