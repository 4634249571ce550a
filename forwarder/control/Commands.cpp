// One function a command. Any other name is a rule's, or wrong.
#include "forwarder/control/Commands.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>

#include "forwarder/base/Words.h"
#include "forwarder/packets/PacketCommand.h"
#include "forwarder/punt/PuntCommand.h"
#include "forwarder/table/RowText.h"
#include "forwarder/traffic/TrafficCommand.h"

namespace Forwarder {
namespace {

constexpr const char* helpText =
    "capacity TABLE=N               no more than N rows; TABLE may be *, N may be none\n"
    "fail-table TABLE [off]         every write of the table fails\n"
    "fail-key TABLE:COLUMN=TEXT [off]  writes of these rows fail; more columns after blanks\n"
    "fail-every N                   one write in N fails; 0: off\n"
    "fail-code CODE                 the error code of these failures\n"
    "latency MS                     reports come so much later\n"
    "silent on|off                  no reports at all\n"
    "clear                          fail-table, fail-key, fail-every and silent off\n"
    "rules                          the rules in force\n"
    "dump [TABLE]                   the rows held, a line each\n"
    "stats                          counters\n"
    "traffic                        synthetic packets: rate, hits, misses, members of groups\n"
    "traffic RATE                   so many a second; 0 or off: none\n"
    "traffic header FIELD=VALUE[,...]  one more packet to take in turn; header none: drawn ones\n"
    "traffic bytes N                a packet's size\n"
    "traffic seed N                 the seed by which packets are drawn\n"
    "traffic reset                  counts hits and misses from 0; the flows' counters go on\n"
    "punt                           packets for the controller: from where, to where, counts\n"
    "punt PORT HEXBYTES [COUNT]     punts this packet as if it had arrived on the port\n"
    "punt PORT size=N [count=N] [rate=N]  punts made packets, numbered after the Ethernet header\n"
    "punt field NAME=VALUE          a value for a field of packet_in, such as reason=1\n"
    "ports                          the switch's ports: devices, states, counts\n"
    "trace N [PORT] [for SECONDS]   the way of the next N packets through the program\n"
    "trace on [PORT] | off          keeps the ways of packets; without a word: those kept\n"
    "pcap PORT FILE [in|out]        writes the port's packets into the file; pcap PORT off\n"
    "program [TABLE]                the program in force\n";

std::string tableNames(const ForwardingAgent& agent) {
  std::string names;
  for (const ProgrammedTable* table : agent.tables()) {
    names += (names.empty() ? "" : ", ") + table->name();
  }
  return names.empty() ? "none yet" : names;
}

std::string dump(const ForwardingAgent& agent, const std::string& name) {
  if (!name.empty()) {
    const ProgrammedTable* table = agent.table(name);
    if (table) return dumpText(*table);
    throw CommandError("no table " + name + "; there are: " + tableNames(agent));
  }
  std::string text;
  for (const ProgrammedTable* table : agent.tables()) text += dumpText(*table);
  return text;
}

std::string changeStats(const ForwardingAgent& agent) {
  uint64_t all = 0;
  std::string text;
  for (size_t i = 0; i < outcomeCount; ++i) {
    const auto outcome = static_cast<Outcome>(i);
    all += agent.changeCount(outcome);
    text += fmt::format("{} {}\n", outcomeName(outcome), agent.changeCount(outcome));
  }
  return fmt::format("changes {}\n", all) + text;
}

std::string tableStats(const ForwardingAgent& agent) {
  std::string text;
  for (const ProgrammedTable* table : agent.tables()) {
    const auto capacity = agent.rules().capacity(table->name());
    text += fmt::format("table {} rows {} capacity {}\n", table->name(), table->rowCount(),
                        capacity ? std::to_string(*capacity) : "none");
  }
  return text;
}

std::string punterStats(const Punter& punter) {
  if (!punter.running()) return {};
  std::string text = "punt-" + punter.counts().text();
  for (size_t end = text.find('\n'); end + 1 < text.size(); end = text.find('\n', end + 1)) {
    text.insert(end + 1, "punt-");
  }
  return text;
}

std::string stats(const CommandTargets& targets) {
  const ForwardingAgent& agent = targets.agent;
  const ReportQueue& reports = targets.reports;
  return fmt::format("pid {}\nattached {}\nsequence {}\nsnapshots {}\n", getpid(),
                     targets.attached ? "yes" : "no", targets.sequence, agent.snapshotCount()) +
         changeStats(agent) +
         fmt::format("swept {}\nreports-sent {}\nreports-waiting {}\nreports-dropped {}\n",
                     agent.sweptRowCount(), reports.sentCount(), reports.waitingCount(),
                     reports.droppedCount()) +
         tableStats(agent) + (targets.punter ? punterStats(*targets.punter) : "");
}

bool hasKeyColumn(const Lattice::TableType& type, const std::string& name) {
  const auto& columns = type.keyColumns();
  return std::any_of(columns.begin(), columns.end(),
                     [&](const Lattice::Column& column) { return column.name == name; });
}

// A rule may come before its table; but a missing column of a known table is a slip of the pen.
void checkNewKeyRules(const ForwardingAgent& agent, const Rules& rules) {
  for (const auto& [name, keys] : rules.failingKeys) {
    const ProgrammedTable* table = agent.table(name);
    if (!table || !table->type()) continue;
    const auto former = agent.rules().failingKeys.find(name);
    for (const KeyRule& key : keys) {
      if (former != agent.rules().failingKeys.end() && std::ranges::count(former->second, key)) {
        continue;
      }
      for (const auto& [column, text] : key.columns) {
        if (hasKeyColumn(*table->type(), column)) continue;
        throw CommandError(fmt::format("fail-key: table {} has no key column {}", name, column));
      }
    }
  }
}

void changeRule(ForwardingAgent& agent, const std::string& name, std::string_view argument) {
  Rules rules = agent.rules();
  if (!applyRule(rules, name, argument)) {
    throw CommandError("no command '" + name + "'; try: help");
  }
  checkNewKeyRules(agent, rules);
  agent.rulesIs(std::move(rules));
}

bool isSwitchCommand(const std::string& name) {
  return name == "ports" || name == "trace" || name == "pcap" || name == "program";
}

Answer runSwitchCommand(const CommandTargets& targets, const std::string& name,
                        std::string_view argument) {
  if (!targets.packets || !targets.engines) {
    throw CommandError(name + ": this forwarder executes no program; start it with --forward");
  }
  if (name == "ports") return runPortsCommand(*targets.packets, argument);
  if (name == "trace") return runTraceCommand(*targets.packets, argument);
  if (name == "pcap") return runPcapCommand(*targets.packets, argument);
  return runProgramCommand(*targets.engines, argument);
}

Answer runNamed(const CommandTargets& targets, const std::string& name, std::string_view argument) {
  ForwardingAgent& agent = targets.agent;
  if (name == "dump") return {true, dump(agent, std::string(argument))};
  if (name == "stats") return {true, stats(targets)};
  if (name == "traffic" && targets.traffic) {
    return {true, runTrafficCommand(*targets.traffic, argument)};
  }
  if (name == "punt" && targets.punter) return runPuntCommand(*targets.punter, argument);
  if (isSwitchCommand(name)) return runSwitchCommand(targets, name, argument);
  if (name == "rules") return {true, rulesText(agent.rules())};
  if (name == "help" || name.empty()) return {true, helpText};
  changeRule(agent, name, argument);
  return {};
}

}  // namespace

Answer runCommand(const CommandTargets& targets, std::string_view line) try {
  line = trimmed(line);
  const std::string name(takeWord(line));
  return runNamed(targets, name, line);
} catch (const CommandError& e) {
  return {false, e.what()};
}

}  // namespace Forwarder
