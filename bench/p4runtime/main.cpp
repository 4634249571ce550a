// korvel-bench: how fast a controller gets its writes verified and its reads served, as shares of
// the speed of an empty handler of the same service in the same run.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/p4runtime/Ceiling.h"
#include "bench/p4runtime/Measure.h"
#include "bench/p4runtime/ProfileMeasure.h"
#include "bench/p4runtime/ReaderMeasure.h"
#include "bench/p4runtime/Report.h"
#include "bench/p4runtime/WriteMeasure.h"
#include "tests/support/Process.h"

namespace {

void print(const std::string& report) {
  std::fputs(report.c_str(), stdout);
  std::fflush(stdout);
}

void measure(const Bench::Plan& plan) {
  if (plan.wants("write")) print(Bench::report(Bench::measuredWrites(plan)));
  if (plan.wants("read") || plan.wants("profiles")) {
    const Bench::Results results = Bench::measured(plan);
    print(Bench::report(results));
    if (plan.wants("profiles")) print(Bench::report(Bench::measuredProfiles(plan), results));
  }
  if (plan.wants("readers")) print(Bench::report(Bench::measuredReaders(plan)));
}

}  // namespace

int main(int argc, char** argv) {
  Bench::Plan plan{.pipelineFile = KORVEL_ROUTER_PIPELINE,
                   .exactPipelineFile = KORVEL_EXACT_PIPELINE};
  bool quick = false;
  bool million = false;
  std::vector<std::string> loads;
  std::string ceilingAddress;
  CLI::App app("Measures agent and forwarder over gRPC, beside an empty handler.", "korvel-bench");
  app.add_flag("--quick", quick, "one run, a tenth of the requests, fewer readers");
  app.add_flag("--million", million, "a table of a million entries, too: takes some minutes");
  app.add_option("--tables", plan.tables, "table sizes, in entries (10000,100000)")
      ->delimiter(',')
      ->check(CLI::Range(uint64_t{1000}, uint64_t{8000000}));
  app.add_option("--loads", loads,
                 "updates a Write x callers at once (1x1,10x1,100x1,1000x1,100x4)")
      ->delimiter(',');
  auto* runs = app.add_option("--runs", plan.runs, "of the writes, whose figures are medians (3)")
                   ->check(CLI::Range(size_t{1}, size_t{100}));
  app.add_option("--operations", plan.operations, "of write, read, profiles, readers")
      ->delimiter(',')
      ->check(CLI::IsMember({"write", "read", "profiles", "readers"}));
  auto* readers = app.add_option("--readers", plan.readers,
                                 "controllers that read whole tables beside a writer")
                      ->check(CLI::Range(size_t{1}, size_t{1000}));
  auto* references = app.add_option("--references", plan.references,
                                    "entries that name groups of an action profile; 0: none")
                         ->check(CLI::Range(uint64_t{0}, uint64_t{8000000}));
  app.add_option("--effort", plan.effort, "share of the usual number of requests, e.g. 10")
      ->check(CLI::Range(0.01, 1000.0));
  app.add_option("--pipeline", plan.pipelineFile, "pipeline file of the router example");
  app.add_option("--serve-ceiling", ceilingAddress)->group("");  // how it starts its own other half
  try {
    app.parse(argc, argv);
    if (!loads.empty()) plan.loads.clear();
    for (const std::string& load : loads) plan.loads.push_back(Bench::loadOf(load));
  } catch (const CLI::ParseError& e) {
    return app.exit(e) == 0 ? 0 : 2;
  } catch (const std::invalid_argument& e) {
    std::fprintf(stderr, "korvel-bench: --loads: %s\n", e.what());
    return 2;
  }
  if (!ceilingAddress.empty()) return Bench::serveCeiling(ceilingAddress);
  if (quick) plan.effort = 0.1;
  if (quick && runs->count() == 0) plan.runs = 1;
  if (quick && readers->count() == 0) plan.readers = 60;
  if (million) plan.tables.push_back(1000000);
  if (references->count() == 0) plan.references = million ? 1000000 : 100000;
  std::sort(plan.tables.begin(), plan.tables.end());
  plan.tables.erase(std::unique(plan.tables.begin(), plan.tables.end()), plan.tables.end());
  const auto byBatch = [](const Bench::Load& a, const Bench::Load& b) { return a.batch < b.batch; };
  if (std::ranges::max_element(plan.loads, byBatch)->batch > plan.tables.front()) {
    std::fputs(
        "korvel-bench: a batch larger than the table would change an entry twice; "
        "choose larger --tables or --loads with smaller batches\n",
        stderr);
    return 2;
  }
  try {
    measure(plan);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "\nkorvel-bench: %s\n", e.what());
    return 1;
  }
  return 0;
}
