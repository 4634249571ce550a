// How this forwarder misbehaves on request, so that controller developers can rehearse failures.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Forwarder {

// Fails the writes of the rows whose key columns have these texts. Columns not named match
// anything.
struct KeyRule {
  std::vector<std::pair<std::string, std::string>> columns;  // name and text, as dumps show them
  friend bool operator==(const KeyRule&, const KeyRule&) = default;
};

// A plain value.
struct Rules {
  std::map<std::string, size_t> capacities;  // rows, by table; "*" for every table not named
  std::set<std::string> failingTables;
  std::map<std::string, std::vector<KeyRule>> failingKeys;  // by table
  uint64_t failEvery = 0;                                   // each n-th write fails; 0: off
  uint16_t failCode = 2;  // of the failures above; P4Runtime/companion/ErrorCode.h
  std::chrono::milliseconds latency{0};
  bool silent = false;

  std::optional<size_t> capacity(const std::string& table) const;
};

// Changes `rules` as the control command and the command line option of that name do:
//   capacity TABLE=N          TABLE may be *; N may be "none"
//   fail-table TABLE [off]
//   fail-key TABLE:COLUMN=TEXT[ COLUMN=TEXT...] [off]
//   fail-every N              0: off
//   fail-code CODE            1 to 65535
//   latency MS
//   silent on|off
//   clear                     all failures off; latency and capacities stay
// Returns false when there is no rule of that name. Throws CommandError and then leaves `rules` as
// they were.
bool applyRule(Rules& rules, std::string_view name, std::string_view argument);

// The commands that make these rules, a line each.
std::string rulesText(const Rules& rules);
std::string keyRuleText(const KeyRule& rule);

}  // namespace Forwarder
