#include "P4Runtime/packet/PacketTransmitter.h"

#include <algorithm>
#include <set>
#include <utility>

#include "platform/scrivel/Trace.h"
#include "platform/vela/ActivityLock.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("P4RuntimeCpuPktSm");

constexpr size_t mostTurn = 256;  // descriptors; other work of the reactor comes between turns
constexpr size_t mostRun = 64;    // packets that one call into the kernel takes

TxDrop reasonOf(Wirra::SendResult result) {
  switch (result) {
    case Wirra::SendResult::noDevice:
      return TxDrop::deviceDown;
    case Wirra::SendResult::tooLong:
      return TxDrop::tooLong;
    default:
      return TxDrop::failed;
  }
}

}  // namespace

PacketTransmitter::PacketTransmitter(Vela::ReactorLoop& loop, ControllerTxPktConfig& queue,
                                     ControllerTxPktStatus& status, TxWays& ways)
    : loop_(loop),
      queue_(queue),
      status_(status),
      ways_(ways),
      self_(std::make_shared<PacketTransmitter*>(this)) {}

PacketTransmitter::~PacketTransmitter() { *self_ = nullptr; }

void PacketTransmitter::wake() {
  if (posted_) return;
  posted_ = true;
  // The caller holds the lock that the turn needs.
  Vela::ActivityLock::afterRelease([&loop = loop_, self = self_] {
    loop.post([self] {
      if (*self) (*self)->turn();
    });
  });
}

void PacketTransmitter::retryWaiting() {
  for (auto& [port, lane] : lanes_) lane.blocked = false;
  if (hasWork()) wake();
}

bool PacketTransmitter::hasWork() const {
  const auto canGo = [](const auto& lane) {
    return !lane.second.blocked && !lane.second.waiting.empty();
  };
  return !queue_.txPktDesc().empty() || std::any_of(lanes_.begin(), lanes_.end(), canGo);
}

void PacketTransmitter::turn() {
  posted_ = false;
  size_t budget = mostTurn;
  drainLanes(&budget);
  drainQueue(&budget);
  flush();
  std::erase_if(lanes_, [](const auto& lane) { return lane.second.waiting.empty(); });
  tellHeld();
  if (hasWork()) wake();
  if (turned_) turned_();
}

void PacketTransmitter::tellHeld() {
  queue_.heldIs(held_);
  std::set<uint64_t> crowded;
  for (const auto& [number, lane] : lanes_) {
    if (lane.waiting.size() >= ControllerTxPktConfig::laneShare) crowded.insert(number);
  }
  queue_.crowdedLanesAre(std::move(crowded));
}

void PacketTransmitter::drainLanes(size_t* budget) {
  for (auto& [port, lane] : lanes_) {
    while (*budget > 0 && !lane.blocked && !lane.waiting.empty()) {
      const TxWays::Way way = ways_.processTxPktDesc(lane.waiting.front().desc);
      prepareRun(way);
      if (lane.blocked) break;
      --*budget;
      --held_;
      Entry entry = std::move(lane.waiting.front());
      lane.waiting.pop_front();
      append(std::move(entry), way);
    }
  }
}

void PacketTransmitter::drainQueue(size_t* budget) {
  auto& queue = queue_.txPktDesc();
  for (; *budget > 0 && !queue.empty(); --*budget) {
    auto [key, desc] = queue.deq();
    SCRIVEL_TRACE(8, "handleTxPktDesc", " Packet with Key ", key);
    ++taken_;
    Entry entry{key, std::move(desc)};
    if (maybeWait(entry)) continue;
    const TxWays::Way way = ways_.processTxPktDesc(entry.desc);
    prepareRun(way);
    if (maybeWait(entry)) continue;  // the device of its predecessors has just become full
    append(std::move(entry), way);
  }
}

// Queues the entry behind waiting packets of its port.
bool PacketTransmitter::maybeWait(Entry& entry) {
  const auto lane = lanes_.find(laneOf(entry.desc));
  if (lane == lanes_.end() || lane->second.waiting.empty()) return false;
  lane->second.waiting.push_back(std::move(entry));
  ++held_;
  return true;
}

// Makes room in the run for the next packet; may send the run for that.
void PacketTransmitter::prepareRun(const TxWays::Way& way) {
  if (way.drop || run_.entries.empty()) return;
  if (run_.intf != way.intf || run_.entries.size() == mostRun) flush();
}

void PacketTransmitter::append(Entry entry, const TxWays::Way& way) {
  if (way.drop) {
    status_.recordDrop(entry.key, entry.desc, *way.drop);
    return;
  }
  run_.intf = way.intf;
  run_.packets.push_back(entry.desc.pkt);
  run_.entries.push_back(std::move(entry));
}

void PacketTransmitter::flush() {
  size_t done = 0;
  while (done < run_.entries.size()) {
    results_.clear();
    ways_.send(run_.intf, std::span(run_.packets).subspan(done), &results_);
    // An interface that says nothing at all must not hold us up.
    if (results_.empty()) results_.push_back(Wirra::SendResult::failed);
    for (const Wirra::SendResult result : results_) {
      if (result == Wirra::SendResult::full) {
        hold(std::span(run_.entries).subspan(done));
        done = run_.entries.size();
        break;
      }
      settle(run_.entries[done++], result);
    }
  }
  run_.entries.clear();
  run_.packets.clear();
}

void PacketTransmitter::settle(const Entry& entry, Wirra::SendResult result) {
  if (result == Wirra::SendResult::sent) {
    status_.sentInc(1);
    return;
  }
  status_.recordDrop(entry.key, entry.desc, reasonOf(result), ways_.trouble(run_.intf));
}

// These packets are older than the waiting ones of their ports.
void PacketTransmitter::hold(std::span<Entry> entries) {
  for (auto entry = entries.rbegin(); entry != entries.rend(); ++entry) {
    Lane& lane = lanes_[laneOf(entry->desc)];
    lane.blocked = true;
    lane.waiting.push_front(std::move(*entry));
  }
  held_ += entries.size();
}

}  // namespace P4Runtime
