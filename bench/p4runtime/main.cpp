// korvel-bench: how fast a controller gets its writes verified and its reads served, as shares of
// the speed of an empty handler of the same service in the same run.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>

#include "bench/p4runtime/Ceiling.h"
#include "bench/p4runtime/Measure.h"
#include "bench/p4runtime/ProfileMeasure.h"
#include "bench/p4runtime/ReaderMeasure.h"
#include "bench/p4runtime/Report.h"
#include "tests/support/Process.h"

int main(int argc, char** argv) {
  Bench::Plan plan{.pipelineFile = KORVEL_ROUTER_PIPELINE};
  bool quick = false;
  std::string ceilingAddress;
  CLI::App app("Measures agent and forwarder over gRPC, beside an empty handler.", "korvel-bench");
  app.add_flag("--quick", quick, "tables of 100,000 entries at most, a fifth of the requests");
  auto* tables = app.add_option("--tables", plan.tables, "table sizes, in entries")
                     ->delimiter(',')
                     ->check(CLI::Range(uint64_t{1000}, uint64_t{8000000}));
  app.add_option("--batches", plan.batches, "updates a request")
      ->delimiter(',')
      ->check(CLI::Range(size_t{1}, size_t{10000}));
  app.add_option("--operations", plan.operations,
                 "of insert, modify, delete, read, profiles, readers")
      ->delimiter(',')
      ->check(CLI::IsMember({"insert", "modify", "delete", "read", "profiles", "readers"}));
  app.add_option("--readers", plan.readers, "controllers that read whole tables beside a writer")
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
  } catch (const CLI::ParseError& e) {
    return app.exit(e) == 0 ? 0 : 2;
  }
  if (!ceilingAddress.empty()) return Bench::serveCeiling(ceilingAddress);
  if (quick) plan.effort = 0.2;
  if (quick && tables->count() == 0) plan.tables = {10000, 100000};
  if (quick && references->count() == 0) plan.references = 100000;
  std::sort(plan.tables.begin(), plan.tables.end());
  if (*std::max_element(plan.batches.begin(), plan.batches.end()) > plan.tables.front()) {
    std::fputs(
        "korvel-bench: a batch larger than the table would change an entry twice; "
        "choose larger --tables or smaller --batches\n",
        stderr);
    return 2;
  }
  try {
    if (plan.wantsTables()) {
      const Bench::Results results = Bench::measured(plan);
      std::fputs(Bench::report(results).c_str(), stdout);
      if (plan.wants("profiles")) {
        std::fputs(Bench::report(Bench::measuredProfiles(plan), results).c_str(), stdout);
      }
    }
    if (!plan.wants("readers")) return 0;
    std::fputs(Bench::report(Bench::measuredReaders(plan)).c_str(), stdout);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "\nkorvel-bench: %s\n", e.what());
    return 1;
  }
  return 0;
}
