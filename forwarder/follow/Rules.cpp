// One function a rule: parse, then change.
#include "forwarder/follow/Rules.h"

#include <fmt/format.h>

#include <algorithm>

#include "forwarder/base/Answer.h"
#include "forwarder/base/Words.h"

namespace Forwarder {
namespace {

constexpr uint64_t maxLatencyMs = 3'600'000;

uint64_t numberFrom(std::string_view what, std::string_view text, uint64_t least, uint64_t most) {
  const auto number = decimalNumber(text);
  if (number && *number >= least && *number <= most) return *number;
  throw CommandError(fmt::format("{}: '{}' is no number from {} to {}", what, text, least, most));
}

// Removes a last word "off"; false when there is no such word.
bool takeOff(std::string_view& argument) {
  const size_t blank = argument.find_last_of(" \t");
  if (blank == argument.npos || argument.substr(blank + 1) != "off") return false;
  argument = trimmed(argument.substr(0, blank));
  return true;
}

void setCapacity(Rules& rules, std::string_view argument) {
  const size_t equals = argument.rfind('=');
  if (equals == argument.npos || equals == 0) {
    throw CommandError(fmt::format(
        "capacity: '{}' is not TABLE=N; N is a number of rows or none, TABLE may be *", argument));
  }
  const std::string table(trimmed(argument.substr(0, equals)));
  const std::string_view count = trimmed(argument.substr(equals + 1));
  if (count == "none") {
    rules.capacities.erase(table);
  } else {
    rules.capacities[table] = numberFrom("capacity " + table, count, 0, SIZE_MAX);
  }
}

void setFailTable(Rules& rules, std::string_view argument) {
  const bool off = takeOff(argument);
  if (argument.empty()) throw CommandError("fail-table: which table? fail-table TABLE [off]");
  if (off) {
    rules.failingTables.erase(std::string(argument));
  } else {
    rules.failingTables.emplace(argument);
  }
}

KeyRule keyRuleFrom(std::string_view text) {
  KeyRule rule;
  while (!(text = trimmed(text)).empty()) {
    const std::string_view word = text.substr(0, text.find_first_of(" \t,"));
    text.remove_prefix(std::min(word.size() + 1, text.size()));
    if (word.empty()) continue;  // a comma and a blank
    const size_t equals = word.find('=');
    if (equals == word.npos || equals == 0) {
      throw CommandError(
          fmt::format("fail-key: '{}' is not COLUMN=TEXT, as a dump shows it", word));
    }
    rule.columns.emplace_back(word.substr(0, equals), word.substr(equals + 1));
  }
  return rule;
}

void setFailKey(Rules& rules, std::string_view argument) {
  const bool off = takeOff(argument);
  const size_t colon = argument.find(':');
  if (colon == argument.npos || colon == 0) {
    throw CommandError(fmt::format(
        "fail-key: '{}' is not TABLE:COLUMN=TEXT, e.g. ipv4_lpm:ipv4_dst=10.1.0.0/16", argument));
  }
  const std::string table(trimmed(argument.substr(0, colon)));
  const KeyRule rule = keyRuleFrom(argument.substr(colon + 1));
  if (rule.columns.empty()) {
    throw CommandError(fmt::format(
        "fail-key: name a column of {0}, {0}:COLUMN=TEXT; or use fail-table {0}", table));
  }
  auto& keys = rules.failingKeys[table];
  std::erase(keys, rule);
  if (!off) keys.push_back(rule);
  if (keys.empty()) rules.failingKeys.erase(table);
}

void setSilent(Rules& rules, std::string_view argument) {
  if (argument != "on" && argument != "off") throw CommandError("silent: say on or off");
  rules.silent = argument == "on";
}

void clearFailures(Rules& rules) {
  rules.failingTables.clear();
  rules.failingKeys.clear();
  rules.failEvery = 0;
  rules.silent = false;
}

}  // namespace

std::optional<size_t> Rules::capacity(const std::string& table) const {
  auto found = capacities.find(table);
  if (found == capacities.end()) found = capacities.find("*");
  if (found == capacities.end()) return std::nullopt;
  return found->second;
}

bool applyRule(Rules& rules, std::string_view name, std::string_view argument) {
  argument = trimmed(argument);
  if (name == "capacity") {
    setCapacity(rules, argument);
  } else if (name == "fail-table") {
    setFailTable(rules, argument);
  } else if (name == "fail-key") {
    setFailKey(rules, argument);
  } else if (name == "fail-every") {
    rules.failEvery = numberFrom(name, argument, 0, UINT64_MAX);
  } else if (name == "fail-code") {
    rules.failCode = static_cast<uint16_t>(numberFrom(name, argument, 1, UINT16_MAX));
  } else if (name == "latency") {
    rules.latency = std::chrono::milliseconds(numberFrom(name, argument, 0, maxLatencyMs));
  } else if (name == "silent") {
    setSilent(rules, argument);
  } else if (name == "clear") {
    clearFailures(rules);
  } else {
    return false;
  }
  return true;
}

std::string keyRuleText(const KeyRule& rule) {
  std::string text;
  for (const auto& [name, value] : rule.columns) {
    if (!text.empty()) text += ' ';
    text += fmt::format("{}={}", name, value);
  }
  return text;
}

std::string rulesText(const Rules& rules) {
  std::string text;
  for (const auto& [table, rows] : rules.capacities) {
    text += fmt::format("capacity {}={}\n", table, rows);
  }
  for (const std::string& table : rules.failingTables) text += "fail-table " + table + '\n';
  for (const auto& [table, keys] : rules.failingKeys) {
    for (const KeyRule& key : keys) text += "fail-key " + table + ':' + keyRuleText(key) + '\n';
  }
  text += fmt::format("fail-every {}\nfail-code {}\nlatency {}\nsilent {}\n", rules.failEvery,
                      rules.failCode, rules.latency.count(), rules.silent ? "on" : "off");
  return text;
}

}  // namespace Forwarder
