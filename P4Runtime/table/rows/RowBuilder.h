// Turns PI bytes into the fields of a row, by the pipeline's model.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "P4Runtime/pipeline/P4TableInfo.h"
#include "P4Runtime/table/rows/EntryToWrite.h"
#include "P4Runtime/table/rows/RowFields.h"
#include "P4Runtime/table/rows/WritableTable.h"

namespace P4Runtime {

// Starts a row with the fields of a match key of `widths`, without the priority. The bytes are as
// many as the widths say, and fit. The prefixes of the former row become invalid.
void startKey(P4TableInfo& tableInfo, const ResourceId& table, const FieldBitwidths& widths,
              std::string_view key, RowFields& fields);

// Builds one row at a time: the fields are valid until the next row is started. Refuses sizes and
// actions that the model does not know. Call with the activity lock held.
class RowBuilder {
 public:
  explicit RowBuilder(P4TableInfo& tableInfo)
      : tableInfo_(tableInfo), fields_(std::make_unique<RowFields>()) {}

  RowFields& startEntry(const WritableTable& table, std::string_view key);
  RowFields& startMemberOrGroup(uint32_t id);
  // The key of the entry's row; starts a row, too.
  std::string entryRowKey(const WritableTable& table, const MatchKey& key);

  // Appends the action-selecting value and the action's fields.
  void appendAction(const ResourceId& table, const ActionData& action, RowFields& fields) const;
  void appendIndirection(const MemberOrGroup& target, RowFields& fields) const;
  // The direct meter and the direct counter, if the table has them.
  void appendDirectResources(const ResourceId& table, const DirectResources& direct,
                             RowFields& fields) const;
  // If the table needs one; 0 is accepted.
  void appendPriority(const WritableTable& table, uint32_t priority, RowFields& fields) const;

 private:
  P4TableInfo& tableInfo_;
  const std::unique_ptr<RowFields> fields_;
};

}  // namespace P4Runtime
