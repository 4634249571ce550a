#include "cli/table/TableCommand.h"

#include <cjson/cJSON.h>
#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "cli/client/ClientOptions.h"
#include "cli/table/RowView.h"
#include "cli/table/TableDump.h"
#include "platform/lattice/counters/FlowCounters.h"
#include "platform/vela/Json.h"

namespace {

using Clock = std::chrono::steady_clock;
using Vela::Json;

struct DumpOptions : ClientOptions {
  std::vector<std::string> wanted;
  bool counters = false;
  double watch = 0;  // seconds; 0: once
  unsigned rounds = 0;
};

// Reads the forwarding agents' counts, and remembers them for the rate.
class Counts {
 public:
  explicit Counts(const std::string& stateDirectory)
      : reader_(Lattice::FlowCounterReader::create(stateDirectory)) {}

  void handleRound() { std::swap(before_, now_), now_.clear(); }

  RowCount of(uint64_t entryHandle) {
    reader_->counts(Lattice::flowCounterName(entryHandle), &found_);
    RowCount sum;
    for (const Lattice::FlowCount& count : found_) {
      sum.packets += count.packets;
      sum.bytes += count.bytes;
    }
    const auto time = Clock::now();
    if (const auto known = before_.find(entryHandle); known != before_.end()) {
      const std::chrono::duration<double> elapsed = time - known->second.time;
      const uint64_t former = known->second.packets;
      const uint64_t more = sum.packets > former ? sum.packets - former : 0;
      sum.packetsPerSecond = static_cast<double>(more) / std::max(elapsed.count(), 1e-6);
    }
    now_[entryHandle] = {sum.packets, time};
    return sum;
  }

 private:
  struct Seen {
    uint64_t packets = 0;
    Clock::time_point time;
  };
  const std::unique_ptr<Lattice::FlowCounterReader> reader_;
  std::vector<Lattice::FlowCount> found_;
  std::unordered_map<uint64_t, Seen> before_, now_;  // by entry handle
};

void printRound(const DumpOptions& options, Counts& counts) {
  const TableDump dump = dumpTables(options.stateDirectory, options.wanted, true);
  for (const DumpedTable& table : dump.tables) {
    if (!options.json) fmt::print("{} ({} rows)\n", table.name, table.rows.size());
    for (const DumpedRow& row : table.rows) {
      std::optional<RowCount> count;
      if (options.counters && table.counted) count = counts.of(row.entryHandle);
      fmt::print("{}\n", options.json ? rowJson(dump, table, row, count)
                                      : rowLine(dump, table, row, count));
    }
  }
  std::fflush(stdout);
  for (const std::string& record : dump.damaged) {
    fmt::print(stderr, "korvel: {}: the record in shared memory is damaged\n", record);
  }
  if (dump.damaged.empty()) return;
  throw std::runtime_error(fmt::format(
      "{} records are damaged and were left out; restart the agent, which mends rows and "
      "lists the entries that are lost",
      dump.damaged.size()));
}

void runDump(const DumpOptions& options) {
  Counts counts(options.stateDirectory);
  const bool screen = options.watch > 0 && !options.json && isatty(STDOUT_FILENO);
  for (unsigned round = 1;; ++round) {
    if (screen) fmt::print("\033[H\033[J");
    printRound(options, counts);
    if (options.watch <= 0 || round == options.rounds) return;
    counts.handleRound();
    std::this_thread::sleep_for(std::chrono::duration<double>(options.watch));
    if (!screen && !options.json) fmt::print("\n");
  }
}

void runList(const ClientOptions& options) {
  const Json list(cJSON_CreateArray());
  for (const DumpedTable& table : dumpTables(options.stateDirectory, {}, false).tables) {
    if (!options.json) {
      fmt::print("{:<40} {:>9} {}\n", table.name, table.rowCount, table.typeName);
      continue;
    }
    cJSON* one = cJSON_CreateObject();
    cJSON_AddStringToObject(one, "table", table.name.c_str());
    cJSON_AddNumberToObject(one, "rows", static_cast<double>(table.rowCount));
    cJSON_AddStringToObject(one, "type", table.typeName.c_str());
    cJSON_AddItemToArray(list.get(), one);
  }
  if (options.json) fmt::print("{}\n", Vela::jsonText(*list));
}

}  // namespace

void addTableCommand(CLI::App& app) {
  CLI::App* table = app.add_subcommand("table", "Read the tables that forwarding agents follow");
  table->require_subcommand(1);

  CLI::App* dump = table->add_subcommand("dump", "Print the rows of tables, as committed");
  const auto dumping = std::make_shared<DumpOptions>();
  dump->add_option("TABLE", dumping->wanted, "Tables to print; all without it");
  dump->add_flag("--counters", dumping->counters,
                 "Show the forwarding agents' counts for each row of a table with counters");
  CLI::Option* watch =
      dump->add_option("--watch", dumping->watch,
                       "Print again every so many seconds, with --counters also packets a second")
          ->type_name("SECONDS")
          ->check(CLI::Range(0.001, 86400.0));
  dump->add_option("--rounds", dumping->rounds, "With --watch: end after so many times")
      ->type_name("N")
      ->needs(watch);
  addClientOptions(*dump, *dumping);
  dump->callback([dumping] { runDump(*dumping); });

  CLI::App* list = table->add_subcommand("list", "Name the tables, their row counts and types");
  const auto listing = std::make_shared<ClientOptions>();
  addClientOptions(*list, *listing);
  list->callback([listing] { runList(*listing); });
}
