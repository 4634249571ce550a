// The table of writes: see Report.h.
#include <fmt/format.h>

#include <algorithm>
#include <thread>

#include "bench/p4runtime/Report.h"

namespace Bench {
namespace {

constexpr const char* operations[] = {"insert", "modify", "delete"};
constexpr uint64_t million = 1000000;

const WriteCell* cellOf(const WriteResults& writes, uint64_t table, const Load& load,
                        const std::string& operation) {
  for (const WriteCell& cell : writes.cells) {
    if (cell.table == table && cell.load == load && cell.operation == operation) return &cell;
  }
  return nullptr;
}

std::vector<uint64_t> tablesOf(const WriteResults& writes, bool large) {
  std::vector<uint64_t> tables;
  for (const WriteCell& cell : writes.cells) {
    const bool isKnown = std::ranges::find(tables, cell.table) != tables.end();
    if (!isKnown && (cell.table >= million) == large) tables.push_back(cell.table);
  }
  return tables;
}

std::vector<Load> loadsOf(const WriteResults& writes, const std::vector<uint64_t>& tables) {
  std::vector<Load> loads;
  for (const WriteCell& cell : writes.cells) {
    const bool isIts = std::ranges::find(tables, cell.table) != tables.end();
    if (isIts && std::ranges::find(loads, cell.load) == loads.end()) loads.push_back(cell.load);
  }
  return loads;
}

std::string sizeText(uint64_t table) {
  if (table % million == 0) return fmt::format("{}M", table / million);
  return table % 1000 == 0 ? fmt::format("{}k", table / 1000) : std::to_string(table);
}

std::string cellText(const WriteCell* cell) {
  if (!cell) return "-";
  const double thousands = cell->rate() / 1000;
  return fmt::format("{:.{}f} ({:.2f})", thousands, thousands < 10 ? 1 : 0, cell->share());
}

std::string tableText(const WriteResults& writes, const std::vector<uint64_t>& tables) {
  if (tables.empty()) return "";
  std::string text = fmt::format("{:<17}", "batch x callers");
  for (const uint64_t table : tables) {
    for (const char* operation : operations) {
      text += fmt::format(" {:>13}", fmt::format("{} {}", operation, sizeText(table)));
    }
  }
  text += "\n";
  for (const Load& load : loadsOf(writes, tables)) {
    text += fmt::format("{:<17}", textOf(load));
    for (const uint64_t table : tables) {
      for (const char* operation : operations) {
        text += fmt::format(" {:>13}", cellText(cellOf(writes, table, load, operation)));
      }
    }
    text += "\n";
  }
  return text;
}

// Of single updates, in the smallest table.
std::string latencyText(const WriteResults& writes) {
  const WriteCell* cell = nullptr;
  for (const char* operation : {"modify", "insert"}) {
    if (!writes.cells.empty() && !cell) {
      cell = cellOf(writes, writes.cells.front().table, {1, 1}, operation);
    }
  }
  if (!cell) return "";
  const auto median = [](const WriteRun& run) { return run.median.count(); };
  const auto ceiling = [](const WriteRun& run) { return run.ceilingMedian.count(); };
  const auto times = [](const WriteRun& run) { return run.median / run.ceilingMedian; };
  return fmt::format("\na single verified {} takes {} ms, the empty handler {} ms (medians)\n",
                     cell->operation, milliseconds(Duration(cell->median(median))),
                     milliseconds(Duration(cell->median(ceiling)))) +
         aimLine("times the empty handler's median", cell->median(times),
                 cell->median(times) <= 1.35, "1.35 or less");
}

std::string memoryText(const WriteResults& writes) {
  if (writes.fullTable == 0) return "";
  const Memory& memory = writes.memory;
  const double bytes =
      static_cast<double>(memory.allBytes()) / static_cast<double>(writes.fullTable);
  std::string text =
      fmt::format("\n{} entries take {} in the agent, {} in the forwarder, {} of files\n",
                  sizeText(writes.fullTable), mebibytes(memory.privateBytes),
                  mebibytes(memory.forwarderBytes), mebibytes(memory.stateBytes));
  // In smaller tables the buffers of the requests outweigh the entries.
  if (writes.fullTable < million) return text;
  return text + aimLine("bytes an entry, all processes and files together", bytes, bytes <= 350,
                        "350 or less");
}

// The least share of the ceiling that is good enough; 0: any.
double leastShare(const Load& load, const std::string& operation) {
  if (operation == "delete") return load.batch >= 100 ? 0.45 : 0;
  if (load == Load{1, 1}) return 0.75;
  return load.batch == 10 ? 0.65 : load.batch >= 100 ? 0.55 : 0;
}

std::string cellName(const WriteCell& cell) {
  return fmt::format("{} {}, {}", cell.operation, sizeText(cell.table), textOf(cell.load));
}

// Each aim is held against the cell that comes nearest to missing it.
std::string shareAims(const WriteResults& writes) {
  std::string text;
  for (const Load& load : loadsOf(writes, tablesOf(writes, false))) {
    for (const bool deletes : {false, true}) {
      const WriteCell* worst = nullptr;
      for (const WriteCell& cell : writes.cells) {
        const bool isIts = cell.load == load && (cell.operation == "delete") == deletes;
        if (isIts && cell.table < million && (!worst || cell.share() < worst->share())) {
          worst = &cell;
        }
      }
      const double least = worst ? leastShare(load, worst->operation) : 0;
      if (least == 0) continue;
      text += aimLine("share of the empty handler, " + cellName(*worst), worst->share(),
                      worst->share() >= least, fmt::format("{} or more", least));
    }
  }
  return text;
}

// The ceiling hardly knows the size of a table, but the machine may have been busier at one size:
// the shares are compared, not the rates.
std::string sizeAims(const WriteResults& writes) {
  std::string text;
  const std::vector<uint64_t> small = tablesOf(writes, false);
  if (small.empty()) return text;
  for (const uint64_t table : {uint64_t{100000}, million}) {
    const double least = table == million ? 0.8 : 0.9;
    const WriteCell* worst = nullptr;
    double worstRatio = 0;
    for (const WriteCell& cell : writes.cells) {
      const WriteCell* base = cellOf(writes, small.front(), cell.load, cell.operation);
      if (cell.table != table || !base || base->table >= table) continue;
      const double ratio = cell.share() / base->share();
      if (worst && ratio >= worstRatio) continue;
      worst = &cell;
      worstRatio = ratio;
    }
    if (!worst) continue;
    text += aimLine(
        fmt::format("{}, over that of {} entries", cellName(*worst), sizeText(small.front())),
        worstRatio, worstRatio >= least, fmt::format("{} or more", least));
  }
  return text;
}

}  // namespace

std::string report(const WriteResults& writes) {
  std::string text = fmt::format(
      "Writes: thousand updates a second, and in brackets their share of an empty handler's rate.\n"
      "A key of 32 bits, an action of 64; each is verified by the forwarder, and all are read "
      "back.\n"
      "Medians of {} run{}; agent and empty handler take turns of some ten milliseconds. They\n"
      "share {} processors with all else that runs here: compare shares rather than rates.\n\n",
      writes.runs, writes.runs == 1 ? "" : "s", std::thread::hardware_concurrency());
  text += tableText(writes, tablesOf(writes, false));
  const std::string large = tableText(writes, tablesOf(writes, true));
  if (!large.empty()) text += "\n" + large;
  return text + latencyText(writes) + memoryText(writes) + "\n" + shareAims(writes) +
         sizeAims(writes);
}

}  // namespace Bench
