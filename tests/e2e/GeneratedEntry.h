// Entries made up for any program: a valid value for each field and parameter of a table.
#pragma once

#include <cstdint>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "p4/v1/p4runtime.pb.h"
#include "tests/support/Pipeline.h"

// The same seed makes the same entries.
class GeneratedEntries {
 public:
  GeneratedEntries(const TestSupport::Pipeline& pipeline, uint64_t seed)
      : pipeline_(pipeline), random_(seed) {}

  // Why no entry of the table can be made; "" when one can. Constant tables and tables without a
  // key count as such.
  std::string obstacle(const p4::config::v1::Table& table) const;
  // The actions that an entry of the table may have.
  std::vector<uint32_t> actionsOf(const p4::config::v1::Table& table) const;

  // The actions that the default entry may have; none where it cannot be changed.
  std::vector<uint32_t> defaultActionsOf(const p4::config::v1::Table& table) const;
  p4::v1::TableEntry defaultEntry(const p4::config::v1::Table& table, uint32_t actionId);

  // Of the table's own key, with an action (in an action set where the table wants one).
  p4::v1::TableEntry entry(const p4::config::v1::Table& table, uint32_t actionId);
  p4::v1::TableAction tableAction(const p4::config::v1::Table& table, uint32_t actionId);
  // For a table whose profile has no selector: entries name a member.
  std::optional<p4::v1::ActionProfileMember> memberFor(const p4::config::v1::Table& table,
                                                       uint32_t actionId);

 private:
  std::string number(uint32_t bits, bool isZeroAllowed = true);
  std::string name();  // of a translated type: any bytes
  std::string value(const auto& declared);
  void fillName(const p4::config::v1::MatchField& field, p4::v1::FieldMatch* match);
  void fill(const p4::config::v1::MatchField& field, p4::v1::FieldMatch* match);
  p4::v1::Action action(uint32_t actionId);
  const p4::config::v1::ActionProfile* profileOf(const p4::config::v1::Table& table) const;

  const TestSupport::Pipeline& pipeline_;
  std::mt19937_64 random_;
  uint32_t lastMember_ = 0;
};
