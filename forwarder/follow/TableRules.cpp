#include "forwarder/follow/TableRules.h"

#include <fmt/format.h>

#include <algorithm>

#include "forwarder/base/Words.h"

namespace Forwarder {
namespace {

// Numbers may be written as people do: 1 is 0x0001.
bool sameText(const std::string& wanted, const std::string& shown) {
  if (wanted == shown) return true;
  const auto number = decimalOrHexNumber(wanted);
  return number && number == decimalOrHexNumber(shown);
}

bool matches(const KeyRule& rule, const std::vector<Lattice::ColumnText>& key) {
  return std::ranges::all_of(rule.columns, [&](const auto& wanted) {
    return std::ranges::any_of(key, [&](const Lattice::ColumnText& column) {
      return column.name == wanted.first && sameText(wanted.second, column.text);
    });
  });
}

}  // namespace

TableRules::TableRules(const Rules& rules, const std::string& table)
    : capacity_(rules.capacity(table).value_or(SIZE_MAX)),
      failing_(rules.failingTables.contains(table)) {
  const auto keys = rules.failingKeys.find(table);
  if (keys != rules.failingKeys.end()) failingKeys_ = keys->second;
}

std::optional<std::string> TableRules::failureOf(const ProgrammedTable& table,
                                                 std::string_view key) const {
  if (failing_) return fmt::format("table {} fails every write", table.name());
  if (failingKeys_.empty()) return std::nullopt;
  const auto texts = Lattice::keyTexts(*table.type(), key);
  for (const KeyRule& rule : failingKeys_) {
    if (!matches(rule, texts)) continue;
    return fmt::format("table {} fails the writes of {}", table.name(), keyRuleText(rule));
  }
  return std::nullopt;
}

}  // namespace Forwarder
