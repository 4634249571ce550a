// The rules for one table, looked up by its name once and not for each row.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "forwarder/follow/Rules.h"
#include "forwarder/table/ProgrammedTable.h"

namespace Forwarder {

// A plain value.
class TableRules {
 public:
  TableRules() = default;
  TableRules(const Rules& rules, const std::string& table);

  size_t capacity() const { return capacity_; }  // rows; SIZE_MAX without a limit
  // Why a write of this row of the table is to fail, for people; nothing when it is not.
  std::optional<std::string> failureOf(const ProgrammedTable& table, std::string_view key) const;

 private:
  size_t capacity_ = SIZE_MAX;
  bool failing_ = false;
  std::vector<KeyRule> failingKeys_;
};

}  // namespace Forwarder
