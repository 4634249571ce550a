#include "P4Runtime/pipeline/TypeAgreement.h"

#include <fmt/format.h>

namespace P4Runtime {
namespace {

using Lattice::Column;
using Lattice::ColumnRole;
using Lattice::ColumnType;
using Part = Lattice::TableType::Part;

uint32_t bytesOf(uint32_t bits) { return (bits + 7) / 8; }

// `prefix`: whether the slot belongs to a prefix, whose length has a slot of its own.
std::string whySizeDiffers(const Column& column, uint32_t width, bool prefix) {
  if (prefix && column.type == ColumnType::ipGenPrefix) return {};
  const bool sized = column.type != ColumnType::ipGenPrefix && column.size == bytesOf(width);
  if (!prefix && sized) return {};
  return fmt::format("its type has column {} of {} bytes for a {} of {} bits", column.name,
                     column.size, prefix ? "prefix" : "field", width);
}

std::string whyKeyDiffers(const FieldBitwidths& widths, const Lattice::TableType& type) {
  uint32_t slot = 0;
  for (const Column& column : type.keyColumns()) {
    if (column.role == ColumnRole::priority) continue;
    if (slot >= widths.slots()) return fmt::format("its type has column {} too many", column.name);
    const bool prefix = widths.fieldIsIpPrefix(slot);
    std::string why = whySizeDiffers(column, widths.fieldBitwidth(slot), prefix);
    if (!why.empty()) return why;
    slot += prefix ? 2 : 1;
  }
  if (slot == widths.slots()) return {};
  return fmt::format("its type has columns for {} of {} fields of the match key", slot,
                     widths.slots());
}

std::string whyActionDiffers(const FieldBitwidths& widths, const Lattice::ActionLayout& action) {
  if (action.fields.size() != widths.slots()) {
    return fmt::format("its type gives action {} {} fields instead of {}", action.name,
                       action.fields.size(), widths.slots());
  }
  for (uint32_t slot = 0; slot < widths.slots(); ++slot) {
    std::string why = whySizeDiffers(action.fields[slot], widths.fieldBitwidth(slot), false);
    if (!why.empty()) return fmt::format("action {}: {}", action.name, why);
  }
  return {};
}

// The rows of members and groups are found by a 32-bit id.
std::string whyIdDiffers(const Lattice::TableType& type, const char* id) {
  const auto& key = type.keyColumns();
  if (key.size() == 1 && key[0].type == ColumnType::u32 && key[0].role == ColumnRole::exact) {
    return {};
  }
  return fmt::format("its type {} is not keyed by {} : U32 alone", type.name(), id);
}

std::string whyGroupDiffers(const Lattice::TableType& type) {
  const auto& parts = type.valueParts();
  if (parts.size() == 1 && parts[0].part == Part::column &&
      parts[0].column.type == ColumnType::u32Array) {
    return whyIdDiffers(type, "group_id");
  }
  return fmt::format("its type {} has other columns than member_id : U32[]", type.name());
}

std::string whyMemberDiffers(const Lattice::TableType& type) {
  const auto& parts = type.valueParts();
  if (parts.size() == 1 && parts[0].part == Part::action) return whyIdDiffers(type, "member_id");
  return fmt::format("its type {} has other columns than the action", type.name());
}

}  // namespace

std::string whyTypeDisagrees(const P4TableInfo& tableInfo, ResourceId table,
                             const Lattice::TableType& type) {
  if (table.type == groupTableResource) return whyGroupDiffers(type);
  std::string why = table.type == actionProfileResource
                        ? whyMemberDiffers(type)
                        : whyKeyDiffers(tableInfo.fieldBitwidths(table), type);
  if (!why.empty()) return why;
  for (const auto& action : type.actions()) {
    // An action that the P4Info does not give the table is never asked for.
    if (!tableInfo.actionIdColForTable(table).actionIdHas(action.actionId)) continue;
    const auto& widths = tableInfo.fieldBitwidths({actionResource, action.actionId});
    std::string reason = whyActionDiffers(widths, action);
    if (!reason.empty()) return reason;
  }
  return {};
}

}  // namespace P4Runtime
