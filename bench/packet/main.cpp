// korvel-packet-bench: packets a second between controller and ports, and how long one of them
// takes, as shares of the figures of bare AF_PACKET sockets on the same links in the same run.
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <functional>
#include <vector>

#include "bench/packet/Links.h"

namespace Bench {
namespace {

struct Plan {
  std::string pipelineFile = KORVEL_ROUTER_PIPELINE;
  std::vector<size_t> sizes{64, 512, 1500, 9000};  // bytes
  double effort = 1;

  size_t packets() const { return static_cast<size_t>(200000 * effort); }
  size_t alone() const { return static_cast<size_t>(5000 * effort); }
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

std::string head() {
  return fmt::format(
      "{:<5} {:>6} {:>11} {:>10} | {:>11} {:>8} {:>10} | {:>11} {:>8} {:>10} | {:>8} {:>9}\n",
      "way", "bytes", "packets/s", "median us", "bare/s", "of bare", "median us", "gRPC/s",
      "of gRPC", "median us", "user us", "system us");
}

std::string lines(const char* way, const BySize& agent, const BySize& bare, const BySize& grpc) {
  std::string text;
  for (size_t i = 0; i < agent.size(); ++i) {
    const PathFigures& ours = agent[i].path;
    text += fmt::format(
        "{:<5} {:>6} {:>11.0f} {:>10.1f} | {:>11.0f} {:>8.3f} {:>10.1f} | {:>11.0f} {:>8.2f} "
        "{:>10.1f} | {:>8.2f} {:>9.2f}\n",
        way, ours.bytes, ours.perSecond, ours.median.count(), bare[i].path.perSecond,
        ours.perSecond / bare[i].path.perSecond, bare[i].path.median.count(),
        grpc[i].path.perSecond, ours.perSecond / grpc[i].path.perSecond,
        grpc[i].path.median.count(), agent[i].agent.user.count(), agent[i].agent.system.count());
  }
  return text;
}

std::string legend() {
  return fmt::format(
      "out: controller to port, in: CPU device to controller; at most {} packets on their way, "
      "median: one at a time\n"
      "bare: AF_PACKET sockets on the port's link; gRPC: a stream whose server does nothing\n"
      "user, system: CPU time of the agent's threads for each packet, gRPC's included\n",
      packetWindow);
}

std::string measuredWays(const Plan& plan) {
  using Direction = GrpcPath::Direction;
  const TestSupport::VethPair port("port", "port-far", 9100);
  const TestSupport::VethPair cpu("p4controller", "cpu-far", 9100);
  BarePath barePath(port);
  const BySize bare = measured(barePath, plan);
  GrpcPath grpcOutPath(Direction::out);
  const BySize grpcOut = measured(grpcOutPath, plan);
  GrpcPath grpcInPath(Direction::in);
  const BySize grpcIn = measured(grpcInPath, plan);
  PacketSwitch agent(plan.pipelineFile, port.name());
  const auto agentCpu = [&] { return agent.cpu(); };
  PacketOutPath outPath(agent, port.peer());
  const BySize out = measured(outPath, plan, agentCpu);
  PacketInPath inPath(agent, cpu.peer());
  const BySize in = measured(inPath, plan, agentCpu);
  return head() + lines("out", out, bare, grpcOut) + lines("in", in, bare, grpcIn) + legend();
}

}  // namespace
}  // namespace Bench

int main(int argc, char** argv) {
  Bench::Plan plan;
  bool quick = false;
  CLI::App app("Measures packet-out and packet-in, beside bare AF_PACKET sockets.",
               "korvel-packet-bench");
  app.add_flag("--quick", quick, "a tenth of the packets");
  app.add_option("--sizes", plan.sizes, "packet sizes, in bytes")
      ->delimiter(',')
      ->check(CLI::Range(size_t{60}, size_t{9000}));
  app.add_option("--effort", plan.effort, "share of the usual number of packets, e.g. 10")
      ->check(CLI::Range(0.01, 1000.0));
  app.add_option("--pipeline", plan.pipelineFile, "pipeline file of the router example");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e) == 0 ? 0 : 2;
  }
  if (quick) plan.effort = 0.1;
  const std::string refusal = TestSupport::enteredNetworkNamespace();
  if (!refusal.empty()) {
    std::fprintf(stderr, "korvel-packet-bench: %s\n", refusal.c_str());
    return 1;
  }
  try {
    std::fputs(Bench::measuredWays(plan).c_str(), stdout);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "korvel-packet-bench: %s\n", e.what());
    return 1;
  }
  return 0;
}
