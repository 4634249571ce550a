// korvel-packet-bench: packets a second between controller and ports, and how long one of them
// takes, as shares of the figures of bare AF_PACKET sockets on the same links in the same run.
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bench/packet/Links.h"
#include "bench/packet/Storm.h"

namespace Bench {
namespace {

struct Plan {
  std::string pipelineFile = KORVEL_ROUTER_PIPELINE;
  std::vector<size_t> sizes{64, 512, 1500, 9000};  // bytes
  std::vector<std::string> ways{"out", "in", "storm"};
  double effort = 1;
  size_t rounds = 3;

  bool has(const char* way) const { return std::ranges::count(ways, way) > 0; }

  size_t packets() const { return static_cast<size_t>(70000 * effort); }  // of a round
  size_t alone() const { return static_cast<size_t>(2000 * effort); }
};

struct Figures {
  PathFigures path;
  Cpu agent;  // for each packet
};
using BySize = std::vector<Figures>;  // in the plan's order

using CpuOf = std::function<Cpu()>;
BySize measured(
    Path& path, const Plan& plan, const CpuOf& cpu = [] { return Cpu(); }) {
  path.waitOpen();
  BySize all;
  for (const size_t bytes : plan.sizes) {
    const Cpu before = cpu();
    const PathFigures figures = path.measured(bytes, plan.packets(), plan.alone());
    const Cpu after = cpu();
    const auto count = static_cast<double>(figures.packets);
    all.push_back({.path = figures,
                   .agent = {.user = (after.user - before.user) / count,
                             .system = (after.system - before.system) / count}});
  }
  return all;
}

// Of one round, in which the ways follow each other: other work of the machine slows all alike.
struct Round {
  BySize bare, grpcOut, grpcIn, out, in;
};

// The median of a figure over the rounds.
template <typename Figure>
double medianOf(const std::vector<Round>& rounds, const Figure& figure) {
  std::vector<double> figures;
  for (const Round& round : rounds) figures.push_back(figure(round));
  const auto middle = figures.begin() + static_cast<ptrdiff_t>(figures.size() / 2);
  std::ranges::nth_element(figures, middle);
  return *middle;
}

std::string head() {
  return fmt::format(
      "{:<5} {:>6} {:>11} {:>10} | {:>11} {:>8} {:>10} | {:>11} {:>8} {:>10} | {:>8} {:>9}\n",
      "way", "bytes", "packets/s", "median us", "bare/s", "of bare", "median us", "gRPC/s",
      "of gRPC", "median us", "user us", "system us");
}

using Way = BySize Round::*;

std::string line(const char* name, const std::vector<Round>& rounds, size_t i, Way agent,
                 Way grpc) {
  const auto median = [&](Way way, auto figure) {
    return medianOf(rounds, [&](const Round& round) { return figure((round.*way)[i]); });
  };
  const auto share = [&](Way of) {
    return medianOf(rounds, [&](const Round& round) {
      return (round.*agent)[i].path.perSecond / (round.*of)[i].path.perSecond;
    });
  };
  const auto rate = [](const Figures& figures) { return figures.path.perSecond; };
  const auto delay = [](const Figures& figures) { return figures.path.median.count(); };
  const auto user = [](const Figures& figures) { return figures.agent.user.count(); };
  const auto system = [](const Figures& figures) { return figures.agent.system.count(); };
  return fmt::format(
      "{:<5} {:>6} {:>11.0f} {:>10.1f} | {:>11.0f} {:>8.3f} {:>10.1f} | {:>11.0f} {:>8.2f} "
      "{:>10.1f} | {:>8.2f} {:>9.2f}\n",
      name, (rounds[0].*agent)[i].path.bytes, median(agent, rate), median(agent, delay),
      median(&Round::bare, rate), share(&Round::bare), median(&Round::bare, delay),
      median(grpc, rate), share(grpc), median(grpc, delay), median(agent, user),
      median(agent, system));
}

std::string legend(size_t rounds) {
  return fmt::format(
      "out: controller to port, in: CPU device to controller; at most {} packets on their way, "
      "median: one at a time\n"
      "bare: AF_PACKET sockets on the port's link; gRPC: a stream whose server does nothing\n"
      "user, system: CPU time of the agent's threads for each packet, gRPC's included\n"
      "each figure: the median of {} round{}, in which agent, sockets and stream take turns\n",
      packetWindow, rounds, rounds == 1 ? "" : "s");
}

std::string measuredWays(const Plan& plan) {
  using Direction = GrpcPath::Direction;
  const TestSupport::VethPair port("port", "port-far", 9100);
  const TestSupport::VethPair cpu("p4controller", "cpu-far", 9100);
  PacketSwitch agent(plan.pipelineFile, port.name());
  const auto agentCpu = [&] { return agent.cpu(); };
  std::vector<Round> rounds(plan.rounds);
  for (Round& round : rounds) {
    round.bare = measured(*std::make_unique<BarePath>(port), plan);
    if (plan.has("out")) {
      round.grpcOut = measured(*std::make_unique<GrpcPath>(Direction::out), plan);
      round.out = measured(*std::make_unique<PacketOutPath>(agent, port.peer()), plan, agentCpu);
    }
    if (plan.has("in")) {
      round.grpcIn = measured(*std::make_unique<GrpcPath>(Direction::in), plan);
      round.in = measured(*std::make_unique<PacketInPath>(agent, cpu.peer()), plan, agentCpu);
    }
  }
  std::string text = head();
  for (size_t i = 0; plan.has("out") && i < plan.sizes.size(); ++i) {
    text += line("out", rounds, i, &Round::out, &Round::grpcOut);
  }
  for (size_t i = 0; plan.has("in") && i < plan.sizes.size(); ++i) {
    text += line("in", rounds, i, &Round::in, &Round::grpcIn);
  }
  return text + legend(rounds.size());
}

}  // namespace
}  // namespace Bench

int main(int argc, char** argv) {
  Bench::Plan plan;
  bool quick = false;
  CLI::App app("Measures packet-out and packet-in, beside bare AF_PACKET sockets.",
               "korvel-packet-bench");
  app.add_flag("--quick", quick, "one round of fewer packets");
  app.add_option("--sizes", plan.sizes, "packet sizes, in bytes")
      ->delimiter(',')
      ->check(CLI::Range(size_t{60}, size_t{9000}));
  app.add_option("--ways", plan.ways, "of out, in, storm")
      ->delimiter(',')
      ->check(CLI::IsMember({"out", "in", "storm"}));
  app.add_option("--effort", plan.effort, "share of the usual number of packets, e.g. 10")
      ->check(CLI::Range(0.01, 1000.0));
  app.add_option("--rounds", plan.rounds, "figures are the medians of so many rounds")
      ->check(CLI::Range(size_t{1}, size_t{1000}));
  app.add_option("--pipeline", plan.pipelineFile, "pipeline file of the router example");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e) == 0 ? 0 : 2;
  }
  if (quick) plan.effort = 0.3;
  if (quick) plan.rounds = 1;
  const std::string refusal = TestSupport::enteredNetworkNamespace();
  if (!refusal.empty()) {
    std::fprintf(stderr, "korvel-packet-bench: %s\n", refusal.c_str());
    return 1;
  }
  try {
    if (plan.has("out") || plan.has("in")) std::fputs(Bench::measuredWays(plan).c_str(), stdout);
    std::fflush(stdout);
    if (plan.has("storm")) {
      const std::string storm = Bench::measuredStorm(plan.pipelineFile, plan.effort, plan.rounds);
      std::fputs(storm.c_str(), stdout);
    }
  } catch (const std::exception& e) {
    std::fprintf(stderr, "korvel-packet-bench: %s\n", e.what());
    return 1;
  }
  return 0;
}
