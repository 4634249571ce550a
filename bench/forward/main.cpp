// korvel-forward-bench: packets a second through the switch and its engine, and what one costs,
// beside a loop that only receives and sends, in the same run.
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "bench/forward/Load.h"
#include "bench/forward/Rig.h"

namespace Bench {
namespace {

constexpr uint64_t writesPerSecond = 50000;

struct Plan {
  std::string router = KORVEL_ROUTER_PROGRAM;
  std::string programs = KORVEL_PROGRAMS;
  std::string vectors = KORVEL_VECTORS;
  std::vector<size_t> sizes{64, 1500};  // bytes
  double seconds = 0.25;                // of each figure
  size_t rounds = 9;
  std::string only;          // programs whose names begin with it
  bool engineAlone = false;  // without sockets, for profilers
};

struct Round {
  Figures alone, through, bare, aloneWritten, throughWritten;
  double writes = 0;  // a second
};

// The median over the rounds.
template <typename Figure>
double median(const std::vector<Round>& rounds, const Figure& figure) {
  std::vector<double> figures;
  for (const Round& round : rounds) figures.push_back(figure(round));
  const auto middle = figures.begin() + static_cast<ptrdiff_t>(figures.size() / 2);
  std::ranges::nth_element(figures, middle);
  return *middle;
}

Round measured(const Wires& wires, const Load& load, const std::vector<std::string>& frames,
               Seconds time) {
  Round round;
  round.alone = engineAlone(load, frames, time);
  round.bare = bareLoop(wires, frames, time);
  round.through = throughSwitch(wires, load, frames, time);
  const Writing writing(*load.engine, writesPerSecond);
  if (!writing.able()) return round;
  round.aloneWritten = engineAlone(load, frames, time);
  round.throughWritten = throughSwitch(wires, load, frames, time);
  round.writes = writing.achieved();
  return round;
}

std::string head() {
  return fmt::format(
      "{:<26} {:>5} | {:>9} {:>6} | {:>8} {:>6} | {:>8} {:>6} | {:>4} {:>5} | {:>11} {:>11} "
      "{:>7}\n",
      "program", "bytes", "engine/s", "ns", "switch/s", "cpu ns", "bare/s", "cpu ns", "rate",
      "cost", "engine", "switch", "write/s");
}

// What remains while entries are written: of the rate, and by CPU time.
std::string remains(const std::vector<Round>& rounds, Figures Round::*before,
                    Figures Round::*beside) {
  return fmt::format("{:>5.2f} {:>5.2f}",
                     median(rounds,
                            [&](const Round& round) {
                              return (round.*beside).perSecond / (round.*before).perSecond;
                            }),
                     median(rounds, [&](const Round& round) {
                       return (round.*before).cost / (round.*beside).cost;
                     }));
}

std::string line(const Load& load, size_t bytes, const std::vector<Round>& rounds) {
  const auto rateAndCost = [&](Figures Round::*way) {
    return std::pair(median(rounds, [&](const Round& round) { return (round.*way).perSecond; }),
                     median(rounds, [&](const Round& round) { return (round.*way).cost; }));
  };
  const auto [engine, engineCost] = rateAndCost(&Round::alone);
  const auto [through, throughCost] = rateAndCost(&Round::through);
  const auto [bare, bareCost] = rateAndCost(&Round::bare);
  std::string text = fmt::format(
      "{:<26} {:>5} | {:>9.0f} {:>6.0f} | {:>8.0f} {:>6.0f} | {:>8.0f} {:>6.0f} | {:>4.2f} "
      "{:>5.2f} |",
      load.name, bytes, engine, engineCost, through, throughCost, bare, bareCost,
      median(rounds, [](const Round& r) { return r.through.perSecond / r.bare.perSecond; }),
      median(rounds, [](const Round& r) { return r.bare.cost / r.through.cost; }));
  if (rounds.front().writes == 0) return text + "\n";
  return text + fmt::format(" {} {} {:>7.0f}\n",
                            remains(rounds, &Round::alone, &Round::aloneWritten),
                            remains(rounds, &Round::through, &Round::throughWritten),
                            median(rounds, [](const Round& round) { return round.writes; }));
}

std::string legend(const Plan& plan) {
  return fmt::format(
      "engine: one core, no sockets; switch: through veth, from a sender that never stops\n"
      "bare: a loop that receives and sends with the same sockets; rate, cost: the switch's shares "
      "of it,\n  in packets a second and by the CPU time that the forwarding thread takes for "
      "each\n"
      "last: shares of engine and switch that remain while entries are written: rate, and by CPU "
      "time;\n  writer and sender need their cores, too\n"
      "each figure: the median of {} rounds of {} s\n",
      plan.rounds, plan.seconds);
}

std::vector<Load> loads(const Plan& plan) {
  std::vector<Load> all;
  const auto wanted = [&](const std::string& name) { return name.starts_with(plan.only); };
  const auto recorded = [&](const std::string& name) {
    if (!wanted(name)) return;
    if (auto load = recordedLoad(plan.programs, plan.vectors, name)) all.push_back(*load);
  };
  if (!plan.router.empty() && wanted("router")) all.push_back(routerLoad(plan.router));
  recorded("pi-simple_router_wcounter");
  if (wanted("10 ACL tables")) all.push_back(aclLoad());
  recorded(largestRecorded(plan.programs, plan.vectors));
  return all;
}

void runEngineAlone(const Plan& plan) {
  for (const Load& load : loads(plan)) {
    for (const size_t bytes : plan.sizes) {
      const std::vector<std::string> frames = load.framesOf(bytes);
      if (frames.empty()) continue;
      std::vector<Round> rounds(plan.rounds);
      for (Round& round : rounds) round.alone = engineAlone(load, frames, Seconds(plan.seconds));
      fmt::print("{:<26} {:>5} bytes: {:>9.0f} a second, {:>6.0f} ns each\n", load.name, bytes,
                 median(rounds, [](const Round& round) { return round.alone.perSecond; }),
                 median(rounds, [](const Round& round) { return round.alone.cost; }));
    }
  }
}

void run(const Plan& plan) {
  const Wires wires;
  std::fputs(head().c_str(), stdout);
  for (const Load& load : loads(plan)) {
    for (const size_t bytes : plan.sizes) {
      const std::vector<std::string> frames = load.framesOf(bytes);
      if (frames.empty()) continue;
      std::vector<Round> rounds;
      for (size_t i = 0; i < plan.rounds; ++i) {
        rounds.push_back(measured(wires, load, frames, Seconds(plan.seconds)));
      }
      std::fputs(line(load, bytes, rounds).c_str(), stdout);
      std::fflush(stdout);
    }
  }
  std::fputs(legend(plan).c_str(), stdout);
}

}  // namespace
}  // namespace Bench

int main(int argc, char** argv) {
  Bench::Plan plan;
  bool quick = false;
  CLI::App app("Measures the switch that executes programs.", "korvel-forward-bench");
  app.add_flag("--quick", quick, "one short round");
  app.add_option("--sizes", plan.sizes, "of frames, in bytes")
      ->delimiter(',')
      ->check(CLI::Range(size_t{60}, size_t{1900}));
  app.add_option("--seconds", plan.seconds, "of each figure")->check(CLI::Range(0.01, 1000.0));
  app.add_option("--rounds", plan.rounds, "figures are the medians of so many rounds")
      ->check(CLI::Range(size_t{1}, size_t{1000}));
  app.add_option("--only", plan.only, "programs whose names begin with it");
  app.add_flag("--engine-alone", plan.engineAlone, "no sockets: for profilers");
  app.add_option("--router", plan.router, "compiled form of the router example");
  app.add_option("--programs", plan.programs, "folder of public programs, in json/ and p4info/");
  app.add_option("--vectors", plan.vectors, "folder of packets recorded of these programs");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e) == 0 ? 0 : 2;
  }
  if (quick) {
    plan.rounds = 1;
    plan.seconds = 0.2;
  }
  const std::string refusal = plan.engineAlone ? "" : TestSupport::enteredNetworkNamespace();
  if (!refusal.empty()) {
    std::fprintf(stderr, "korvel-forward-bench: %s\n", refusal.c_str());
    return 1;
  }
  try {
    plan.engineAlone ? Bench::runEngineAlone(plan) : Bench::run(plan);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "korvel-forward-bench: %s\n", e.what());
    return 1;
  }
  return 0;
}
