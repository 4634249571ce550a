// See Storm.h.
#include "bench/packet/Storm.h"

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <thread>
#include <vector>

#include "bench/p4runtime/Samples.h"
#include "bench/p4runtime/Writing.h"
#include "tests/support/AgentProcess.h"
#include "tests/support/ForwarderProcess.h"
#include "tests/support/NetworkNamespace.h"
#include "tests/support/PacketEndpoint.h"
#include "tests/support/Pipeline.h"
#include "tests/support/TempDir.h"

namespace Bench {
namespace {

using namespace TestSupport;

constexpr const char* routeTable = "ipv4_route";
constexpr uint64_t routes = 10000;
constexpr std::chrono::milliseconds span{600};  // of Writes, at the usual effort

// Sends packets of 64 bytes through a device, without pause, while it lives.
class Flood {
 public:
  explicit Flood(const std::string& device) : sender_(device), thread_([this] { run(); }) {}
  ~Flood() {
    stopping_ = true;
    thread_.join();
  }

 private:
  void run() {
    const std::string packet = std::string("\0\0\0\1\1", 5).append(std::string(64, 'x'));
    const std::vector<std::string_view> packets(64, packet);
    while (!stopping_) sender_.send(packets);
  }

  PacketEndpoint sender_;
  std::atomic<bool> stopping_{false};
  std::thread thread_;
};

// An agent with a CPU device, a forwarder, the controller that gets the packets, and one that
// writes over a connection of its own.
class StormSwitch {
 public:
  explicit StormSwitch(const std::string& pipelineFile)
      : pipeline_(pipelineFile),
        agent_({.stateDirectory = directory_.file("state"), .pipelineFile = prepared()}),
        forwarder_(directory_.file("state")) {
    if (!agent_.startServing()) throw std::runtime_error("no agent:\n" + agent_.output());
    forwarder_.start();
    if (!forwarder_.waitAttached()) throw std::runtime_error("forwarder: " + forwarder_.output());
    listener_ = std::make_unique<TestController>(agent_.address(), 1);
    listener_->onPacketInIs([this](const p4::v1::PacketIn&) { ++packetsIn_; });
    if (!listener_->becomePrimary()) throw std::runtime_error("not primary:\n" + agent_.output());
    writer_ = std::make_unique<TestController>(agent_.address(), 1);
    modifies(1000, routes, p4::v1::Update::INSERT);
  }

  TestController& listener() { return *listener_; }
  uint64_t packetsIn() const { return packetsIn_; }
  // Modifies a second, in batches of so many, for about `time`.
  double modifyRate(size_t batch, std::chrono::duration<double> time) {
    Samples samples;
    const auto end = Clock::now() + time;
    while (Clock::now() < end) {
      samples.add(written(*writer_, next(batch, p4::v1::Update::MODIFY)));
    }
    return samples.perSecond(batch);
  }

 private:
  std::string prepared() {
    pipeline_.tableSizeIs(routeTable, routes);
    const std::string path = directory_.file("pipeline.pb.bin");
    pipeline_.written(path);
    return path;
  }
  void modifies(size_t batch, uint64_t count, p4::v1::Update::Type type) {
    for (uint64_t i = 0; i < count; i += batch) written(*writer_, next(batch, type));
  }
  p4::v1::WriteRequest next(size_t batch, p4::v1::Update::Type type) {
    std::vector<p4::v1::Update> updates;
    for (size_t i = 0; i < batch; ++i, ++made_) {
      const auto entry = EntryOf(pipeline_, routeTable)
                             .exact("vrf_id", 1)
                             .lpm("ipv4_dst", made_ % routes << 8, 24)
                             .action("set_nexthop", {{"nexthop_id", made_ / routes + 1}});
      updates.push_back(updateOf(type, entityOf(entry)));
    }
    return writer_->writeRequest(updates);
  }

  const TempDir directory_;
  Pipeline pipeline_;
  AgentProcess agent_;
  ForwarderProcess forwarder_;
  std::atomic<uint64_t> packetsIn_{0};
  std::unique_ptr<TestController> listener_;
  std::unique_ptr<TestController> writer_;
  uint64_t made_ = 0;
};

// Of one round.
struct StormRound {
  double alone = 0;      // modifies a second
  double elsewhere = 0;  // beside packets that the agent does not see
  double read = 0;       // beside packets in, which the controller reads
  double unread = 0;     // the controller does not read
  double packets = 0;    // a second, to the controller that reads
};

double medianOf(const std::vector<StormRound>& rounds,
                const std::function<double(const StormRound&)>& figure) {
  std::vector<double> figures;
  for (const StormRound& round : rounds) figures.push_back(figure(round));
  const auto middle = figures.begin() + static_cast<ptrdiff_t>(figures.size() / 2);
  std::ranges::nth_element(figures, middle);
  return *middle;
}

StormRound measured(StormSwitch& agent, const std::string& cpu, const std::string& elsewhere,
                    size_t batch, std::chrono::duration<double> time) {
  StormRound round;
  round.alone = agent.modifyRate(batch, time);
  {
    const Flood flood(elsewhere);
    round.elsewhere = agent.modifyRate(batch, time);
  }
  {
    const Flood flood(cpu);
    const uint64_t before = agent.packetsIn();
    const auto start = Clock::now();
    round.read = agent.modifyRate(batch, time);
    round.packets = static_cast<double>(agent.packetsIn() - before) /
                    (Duration(Clock::now() - start).count() / 1e6);
  }
  agent.listener().readsIs(false);
  {
    const Flood flood(cpu);
    round.unread = agent.modifyRate(batch, time);
  }
  agent.listener().readsIs(true);
  return round;
}

std::string line(size_t batch, const std::vector<StormRound>& rounds) {
  const auto rate = [&](double StormRound::*figure) {
    return medianOf(rounds, [&](const StormRound& round) { return round.*figure / 1000; });
  };
  const auto share = [&](double StormRound::*figure, double StormRound::*of) {
    return medianOf(rounds, [&](const StormRound& round) { return round.*figure / round.*of; });
  };
  return fmt::format(
      "{:>5} {:>8.1f} | {:>8.1f} {:>8.2f} | {:>8.1f} {:>8.2f} {:>9.2f} {:>9.0f} | {:>8.1f} "
      "{:>8.2f} "
      "{:>9.2f}\n",
      batch, rate(&StormRound::alone), rate(&StormRound::elsewhere),
      share(&StormRound::elsewhere, &StormRound::alone), rate(&StormRound::read),
      share(&StormRound::read, &StormRound::alone),
      share(&StormRound::read, &StormRound::elsewhere), 1000 * rate(&StormRound::packets),
      rate(&StormRound::unread), share(&StormRound::unread, &StormRound::alone),
      share(&StormRound::unread, &StormRound::elsewhere));
}

}  // namespace

std::string measuredStorm(const std::string& pipelineFile, double effort, size_t rounds) {
  const VethPair cpu("p4controller", "cpu-far", 9100);
  const VethPair other("other", "other-far", 9100);
  StormSwitch agent(pipelineFile);
  std::string text =
      fmt::format("{:>5} {:>8} | {:>8} {:>8} | {:>8} {:>8} {:>9} {:>9} | {:>8} {:>8} {:>9}\n",
                  "batch", "alone", "elsewhere", "of alone", "read", "of alone", "elsewhere",
                  "packets/s", "unread", "of alone", "elsewhere");
  for (const size_t batch : {size_t{100}, size_t{1000}}) {
    std::vector<StormRound> all;
    for (size_t i = 0; i < rounds; ++i) {
      all.push_back(measured(agent, cpu.peer(), other.peer(), batch, span * effort));
    }
    text += line(batch, all);
  }
  return text +
         "thousand modifies a second from one caller, beside packets that come as fast as a thread "
         "sends them\n"
         "elsewhere: to a device that nobody reads, which takes the sender's part of the "
         "processors "
         "away;\n"
         "read, unread: to the agent, whose controller reads its packets, or does not; shares of "
         "both\n";
}

}  // namespace Bench
