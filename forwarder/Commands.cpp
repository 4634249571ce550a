// One function a command; what none of them knows is a rule, or wrong.
#include "forwarder/Commands.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>

#include "forwarder/PuntCommand.h"
#include "forwarder/Punter.h"
#include "forwarder/RowText.h"
#include "forwarder/TrafficCommand.h"

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
    "traffic seed N                 what the packets are drawn from\n"
    "traffic reset                  counts hits and misses anew; not the flows' counters\n"
    "punt                           packets for the controller: from where, to where, counts\n"
    "punt PORT HEXBYTES [COUNT]     punts this packet as if it had arrived on the port\n"
    "punt PORT size=N [count=N] [rate=N]  punts made packets, numbered after the Ethernet header\n"
    "punt field NAME=VALUE          a value for a field of packet_in, such as reason=1\n";

Answer refused(std::string why) { return {false, std::move(why)}; }

std::string tableNames(const ForwardingAgent& agent) {
  std::string names;
  for (const auto& [name, table] : agent.tables()) names += (names.empty() ? "" : ", ") + name;
  return names.empty() ? "none yet" : names;
}

Answer dump(const ForwardingAgent& agent, const std::string& name) {
  Answer answer;
  if (name.empty()) {
    for (const auto& [key, table] : agent.tables()) answer.text += dumpText(*table);
    return answer;
  }
  const ProgrammedTable* table = agent.table(name);
  if (!table) return refused("no table " + name + "; there are: " + tableNames(agent));
  answer.text = dumpText(*table);
  return answer;
}

Answer stats(const ForwardingAgent& agent, const ReportQueue& reports, const Following& following) {
  std::string text =
      fmt::format("pid {}\nattached {}\nsequence {}\nsnapshots {}\n", getpid(),
                  following.attached ? "yes" : "no", following.sequence, agent.snapshotCount());
  uint64_t all = 0;
  for (size_t i = 0; i < outcomeCount; ++i) all += agent.changes(static_cast<Outcome>(i));
  text += fmt::format("changes {}\n", all);
  for (size_t i = 0; i < outcomeCount; ++i) {
    const auto outcome = static_cast<Outcome>(i);
    text += fmt::format("{} {}\n", outcomeName(outcome), agent.changes(outcome));
  }
  text += fmt::format("swept {}\nreports-sent {}\nreports-waiting {}\nreports-dropped {}\n",
                      agent.sweptRows(), reports.sent(), reports.waiting(), reports.dropped());
  for (const auto& [name, table] : agent.tables()) {
    const auto capacity = agent.rules().capacity(name);
    text += fmt::format("table {} rows {} capacity {}\n", name, table->rowCount(),
                        capacity ? std::to_string(*capacity) : "none");
  }
  return {true, std::move(text)};
}

std::string punterStats(const Punter& punter) {
  if (!punter.started()) return {};
  std::string text = "punt-" + punter.counts().text();
  for (size_t end = text.find('\n'); end + 1 < text.size(); end = text.find('\n', end + 1)) {
    text.insert(end + 1, "punt-");
  }
  return text;
}

bool hasKeyColumn(const Lattice::TableType& type, const std::string& name) {
  const auto& columns = type.keyColumns();
  return std::any_of(columns.begin(), columns.end(),
                     [&](const Lattice::Column& column) { return column.name == name; });
}

// A rule may come before its table; but a column that a table does not have is a slip of the pen.
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
        throw RuleError(fmt::format("fail-key: table {} has no key column {}", name, column));
      }
    }
  }
}

Answer ruled(ForwardingAgent& agent, const std::string& name, std::string_view argument) {
  try {
    Rules rules = agent.rules();
    if (!applyRule(rules, name, argument)) {
      return refused("no command '" + name + "'; try: help");
    }
    checkNewKeyRules(agent, rules);
    agent.rulesIs(std::move(rules));
    return {};
  } catch (const RuleError& e) {
    return refused(e.what());
  }
}

}  // namespace

Answer answered(ForwardingAgent& agent, const ReportQueue& reports, const Following& following,
                std::string_view line, Traffic* traffic, Punter* punter) {
  const size_t start = std::min(line.find_first_not_of(" \t\r"), line.size());
  line.remove_prefix(start);
  line = line.substr(0, line.find_last_not_of(" \t\r") + 1);
  const size_t blank = std::min(line.find_first_of(" \t"), line.size());
  const std::string name(line.substr(0, blank));
  line.remove_prefix(blank);
  line.remove_prefix(std::min(line.find_first_not_of(" \t"), line.size()));
  if (name == "dump") return dump(agent, std::string(line));
  if (name == "stats") {
    Answer answer = stats(agent, reports, following);
    if (punter) answer.text += punterStats(*punter);
    return answer;
  }
  if (name == "traffic" && traffic) return trafficAnswered(*traffic, line);
  if (name == "punt" && punter) return puntAnswered(*punter, line);
  if (name == "rules") return {true, rulesText(agent.rules())};
  if (name == "help" || name.empty()) return {true, helpText};
  return ruled(agent, name, line);
}

}  // namespace Forwarder
