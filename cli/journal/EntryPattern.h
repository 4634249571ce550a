// The entries of a table that a user asks about, by some or all fields of their keys.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "cli/journal/EntityPattern.h"

namespace p4::config::v1 {
class MatchField;
class Table;
}  // namespace p4::config::v1
namespace p4::v1 {
class Entity;
class FieldMatch;
class TableEntry;
}  // namespace p4::v1
namespace Cli {

// The entry that an entity is, or a part of it: its counter or meter. Null for other kinds.
const p4::v1::TableEntry* entryOf(const p4::v1::Entity& entity);

// The value of a match field, in one form for all match types: value and mask, or low and high.
struct FieldValue {
  std::string value;
  std::string mask;  // of a string: empty
  bool isRange = false;
  friend bool operator==(const FieldValue&, const FieldValue&) = default;
};
// Throws PipelineError for a value that does not fit the field.
FieldValue fieldValue(const p4::config::v1::MatchField& field, const p4::v1::FieldMatch& match);

class EntryPattern final : public EntityPattern {
 public:
  // `words` are FIELD=VALUE: "ipv4_dst=10.0.0.0/8", "port=*" for a field that the entry leaves out,
  // as it does with 0.0.0.0/0. Bits that a mask leaves out do not count. Entries may have any value
  // in fields that are not named. Throws PipelineError that names the word. The table outlives the
  // pattern.
  EntryPattern(const p4::config::v1::Table& table, const std::vector<std::string>& words);

  void priorityIs(int32_t priority) { priority_ = priority; }
  // Only the default entry; without words and priority it is among the others.
  void isDefaultIs(bool isDefault) { isDefault_ = isDefault; }

  // Also an entry's counter and meter.
  bool matches(const p4::v1::Entity& entity) const override;
  const std::string& needle() const override { return needle_; }

 private:
  struct Wanted {
    const p4::config::v1::MatchField* field = nullptr;
    std::optional<FieldValue> value;  // empty: the entry leaves the field out
  };
  void add(const std::string& word);
  void noteNeedle(std::string_view value);
  bool mayBeDefault() const { return isDefault_ || (fields_.empty() && !priority_); }
  bool matches(const p4::v1::TableEntry& entry) const;
  bool matches(const Wanted& wanted, const p4::v1::TableEntry& entry) const;

  const p4::config::v1::Table& table_;
  std::vector<Wanted> fields_;
  std::optional<int32_t> priority_;
  bool isDefault_ = false;
  std::string needle_;
};

}  // namespace Cli
