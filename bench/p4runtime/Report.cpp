// See Report.h.
#include "bench/p4runtime/Report.h"

#include <fmt/format.h>

#include <algorithm>
#include <optional>

namespace Bench {
namespace {

const Line* smallest(const Results& results, const Line& like) {
  for (const Line& line : results.lines) {
    if (line.operation == like.operation &&
        (line.batch == like.batch || line.operation == "read all")) {
      return &line;
    }
  }
  return nullptr;
}

std::optional<double> ofCeiling(const Line& line) {
  if (line.ceiling.count() == 0) return std::nullopt;
  return line.rate() / line.ceiling.perSecond(line.batch);
}

std::optional<double> ofSmallest(const Results& results, const Line& line) {
  const Line* base = smallest(results, line);
  if (!base || base->table == line.table) return std::nullopt;
  return line.rate() / base->rate();
}

std::string ratio(std::optional<double> value) {
  return value ? fmt::format("{:.2f}", *value) : "-";
}

std::string ceilingRate(const Line& line) {
  return line.ceiling.count() ? fmt::format("{:.0f}", line.ceiling.perSecond(line.batch)) : "-";
}

std::string rateTable(const Results& results) {
  std::string text =
      fmt::format("{:>9} {:>7} {:<9} {:>11} {:>10} {:>10} {:>10} {:>11}\n", "table", "batch",
                  "operation", "entries/s", "median ms", "p99 ms", "of ceiling", "of smallest");
  for (const Line& line : results.lines) {
    const std::string batch = line.operation == "read all" ? "-" : std::to_string(line.batch);
    text +=
        fmt::format("{:>9} {:>7} {:<9} {:>11.0f} {:>10} {:>10} {:>11} {:>10} {:>11}\n", line.table,
                    batch, line.operation, line.rate(), milliseconds(line.agent.median()),
                    milliseconds(line.agent.p99()), ceilingRate(line), ratio(ofCeiling(line)),
                    ratio(ofSmallest(results, line)));
  }
  return text;
}

double bytesPerEntry(const TableFigures& figures) {
  return static_cast<double>(figures.memory.allBytes()) / static_cast<double>(figures.table);
}

std::string figuresTable(const std::vector<TableFigures>& tables) {
  std::string text =
      fmt::format("{:>9} {:>13} {:>14} {:>13} {:>12} {:>12} {:>10}\n", "table", "fill, rows/s",
                  "agent", "forwarder", "state dir", "bytes/entry", "restart s");
  for (const TableFigures& figures : tables) {
    text +=
        fmt::format("{:>9} {:>13.0f} {:>14} {:>13} {:>12} {:>12.0f} {:>10.2f}\n", figures.table,
                    figures.fillRate, mebibytes(figures.memory.privateBytes),
                    mebibytes(figures.memory.forwarderBytes), mebibytes(figures.memory.stateBytes),
                    bytesPerEntry(figures), figures.restartSeconds);
  }
  return text;
}

std::string tableFigures(const Results& results) {
  return figuresTable(results.tables) +
         "agent, forwarder: private memory; all three: growth since the tables were empty\n";
}

// Tables of other sizes have no aim.
std::string aims(const Results& results) {
  const TableFigures& largest = results.tables.back();
  if (largest.table != 1000000) return "";
  return "\n" + aimLine("seconds to restart with 1000000 entries", largest.restartSeconds,
                        largest.restartSeconds < 2, "under 2");
}

const Line* directLine(const ProfileResults& profiles, size_t batch) {
  for (const Line& line : profiles.lines) {
    if (line.batch == batch && line.operation == "direct") return &line;
  }
  return nullptr;
}

std::string profileRates(const ProfileResults& profiles) {
  std::string text = fmt::format("{:>7} {:<9} {:>11} {:>10} {:>10} {:>10}\n", "batch", "inserts",
                                 "updates/s", "median ms", "p99 ms", "of direct");
  for (const Line& line : profiles.lines) {
    const Line* direct = directLine(profiles, line.batch);
    text += fmt::format("{:>7} {:<9} {:>11.0f} {:>10} {:>10} {:>10}\n", line.batch, line.operation,
                        line.rate(), milliseconds(line.agent.median()),
                        milliseconds(line.agent.p99()), ratio(line.rate() / direct->rate()));
  }
  return text + fmt::format(
                    "direct: entries with an action; one-shot: entries with a set of {}; group, "
                    "regroup: groups of {}, made and changed by one member\n",
                    setSize, groupSize);
}

std::string referenceFigures(const TableFigures& figures, const Results& results) {
  const TableFigures& direct = results.tables.back();
  return fmt::format("\nentries that name {} groups of {}\n", groupCount, groupSize) +
         figuresTable({figures}) +
         fmt::format("of those with an action, table of {}: rate {:.2f}, bytes {:.2f}\n",
                     direct.table, figures.fillRate / direct.fillRate,
                     bytesPerEntry(figures) / bytesPerEntry(direct)) +
         aimLine(fmt::format("seconds to restart with {} entries of groups", figures.table),
                 figures.restartSeconds, figures.restartSeconds < 10, "under 10") +
         aimLine("bytes an entry of a group", bytesPerEntry(figures), bytesPerEntry(figures) < 1024,
                 "under 1024");
}

}  // namespace

std::string aimLine(const std::string& what, double value, bool reached,
                    const std::string& wanted) {
  return fmt::format("{:<11} {}: {:.2f} (aim: {})\n", reached ? "reached" : "FALLS SHORT", what,
                     value, wanted);
}

std::string milliseconds(Duration duration) {
  return fmt::format("{:.3f}", duration.count() / 1000);
}

std::string mebibytes(size_t bytes) {
  return fmt::format("{:.1f} MiB", static_cast<double>(bytes) / (1 << 20));
}

std::string report(const ProfileResults& profiles, const Results& results) {
  std::string text = "\n" + profileRates(profiles);
  if (profiles.figures.table > 0) text += referenceFigures(profiles.figures, results);
  return text;
}

std::string report(const ReaderResults& readers) {
  const auto line = [](const char* what, const Samples& samples) {
    return fmt::format("{:<8} {:>10} {:>10} {:>10}\n", what, milliseconds(samples.median()),
                       milliseconds(samples.p99()), milliseconds(samples.longest()));
  };
  const double longest = readers.beside.longest().count() / 1000;
  return fmt::format("\nWrites of one update beside {} readers of {} entries, {:.0f} reads/s\n",
                     readers.readers, readers.table, readers.readsPerSecond) +
         fmt::format("{:<8} {:>10} {:>10} {:>10}\n", "", "median ms", "p99 ms", "longest ms") +
         line("alone", readers.alone) + line("beside", readers.beside) +
         fmt::format("the agent grew by {:.1f} MiB meanwhile, and by {:.1f} MiB for good\n",
                     static_cast<double>(readers.mostBytes) / (1 << 20),
                     static_cast<double>(readers.leftBytes) / (1 << 20)) +
         aimLine("milliseconds of the longest Write beside readers", longest, longest < 100,
                 "under 100");
}

std::string report(const Results& results) {
  return "\n" + rateTable(results) + "\n" + tableFigures(results) + aims(results);
}

}  // namespace Bench
