// The columns of a table type beside the slots of a key and the parameters of actions.
#include "pipeline/RowCheck.h"

#include <fmt/format.h>

#include <algorithm>
#include <vector>

#include "pipeline/ColumnType.h"
#include "pipeline/Names.h"

namespace Pipeline {
namespace {

using Lattice::Column;
using Lattice::ColumnRole;
using Lattice::ColumnType;
using Lattice::TableType;
using Vela::Outcome;

uint32_t byteCount(uint32_t bits) { return (bits + 7) / 8; }

bool isAddress(ColumnType type) {
  return type == ColumnType::ipAddr || type == ColumnType::ip6Addr || type == ColumnType::ethAddr;
}

bool isInteger(ColumnType type) {
  return type == ColumnType::u8 || type == ColumnType::u16 || type == ColumnType::u32;
}

// The conversion turns fields of 2 and 4 bytes to host order unless they are marked, and leaves all
// others in network order; integers of 8 bytes would come out reversed.
Outcome checkValue(const Column& column, uint32_t bits, bool networkOrder) {
  const bool turned = (column.size == 2 || column.size == 4) && !networkOrder;
  const bool ordered = column.size == 1 || turned == isInteger(column.type);
  const bool fits = column.type != ColumnType::ipGenPrefix && column.size == byteCount(bits);
  if (fits && ordered && column.type != ColumnType::u64) return {};
  if (!fits) {
    return Outcome::failure(fmt::format("column {} of {} bytes is not for {} bits",
                                        quoted(column.name), column.size, bits));
  }
  return Outcome::failure(fmt::format(
      "column {} would hold its bytes reversed; use {}", quoted(column.name),
      turned ? "U" + std::to_string(8 * column.size) : fmt::format("Bytes<{}>", column.size)));
}

// A prefix is of as many bits as the field: its length counts from the first of them.
Outcome checkPrefix(const Column& column, uint32_t bits) {
  if (column.bits == bits) return {};
  return Outcome::failure(fmt::format("column {} is no Bits<{}>, which its LPM field needs",
                                      quoted(column.name), bits));
}

Outcome checkLength(const Column& column) {
  if (column.type == ColumnType::u32) return {};
  return Outcome::failure(fmt::format("column {} is no U32", quoted(column.name)));
}

ColumnRole roleOf(SlotRole role) {
  switch (role) {
    case SlotRole::value:
      return ColumnRole::value;
    case SlotRole::mask:
      return ColumnRole::mask;
    case SlotRole::range:
      return ColumnRole::range;
    case SlotRole::low:
      return ColumnRole::low;
    case SlotRole::high:
      return ColumnRole::high;
    case SlotRole::prefix:
      return ColumnRole::prefix;
    case SlotRole::prefixLength:
      return ColumnRole::length;
    case SlotRole::optional:
      return ColumnRole::optional;
    case SlotRole::present:
      return ColumnRole::present;
    case SlotRole::exact:
      break;
  }
  return ColumnRole::exact;
}

const char* nameOf(ColumnRole role) {
  constexpr const char* names[] = {"exact", "value",  "mask",   "range",    "priority", "low",
                                   "high",  "prefix", "length", "optional", "present"};
  return names[static_cast<size_t>(role)];
}

// Marks of byte order go by the place in "table_fields", so that each slot needs its own field.
Outcome checkSlot(const Slot& slot, const DeviceField& field, const Column& column) {
  if (slot.type == "IpGenPrefix") {
    if (column.type == ColumnType::ipGenPrefix) return {};
    return Outcome::failure(
        fmt::format("column {} is no IpGenPrefix, which an LPM field needs", quoted(column.name)));
  }
  if (column.role != roleOf(slot.role)) {
    return Outcome::failure(fmt::format("column {} is {}; the P4Info asks for {} there",
                                        quoted(column.name), nameOf(column.role),
                                        nameOf(roleOf(slot.role))));
  }
  if (slot.role == SlotRole::prefix) return checkPrefix(column, slot.bits);
  // A length is in host order in a match key, too.
  if (slot.role == SlotRole::prefixLength) return checkLength(column);
  const bool marked = isAddress(column.type) && field.type != "PrefixLen";
  return checkValue(column, slot.bits, marked);
}

Outcome checkKey(const DeviceTable& table, const TableType& type, const TableLayout& layout) {
  std::vector<Column> columns = type.keyColumns();
  const bool priority = !columns.empty() && columns.back().role == ColumnRole::priority;
  if (priority) columns.pop_back();
  size_t column = 0;
  for (size_t i = 0; i < layout.slots.size(); ++i) {
    const Slot& slot = layout.slots[i];
    const bool present = i < table.fields.size();
    if (!slot.hasColumn()) {
      if (present && table.fields[i].type == "PrefixLen") continue;
      return Outcome::failure(fmt::format("behind its field {} there is none of type PrefixLen",
                                          quoted(columns[column - 1].name)));
    }
    if (!present || column == columns.size()) {
      return Outcome::failure(
          fmt::format("its key has {} columns, too few for the match fields", columns.size()));
    }
    Outcome same = checkSlot(slot, table.fields[i], columns[column++]);
    if (!same.ok()) return same;
  }
  if (column < columns.size()) {
    return Outcome::failure(
        fmt::format("no match field fills its key column {}", quoted(columns[column].name)));
  }
  if (priority != layout.priority) {
    return Outcome::failure(
        priority ? "its key has a priority, but its match fields ask for none"
                 : "its key has no priority, as its ternary, range or optional fields ask for");
  }
  return {};
}

// The agent makes these ids up, in host order.
Outcome checkId(const TableType& type) {
  const auto& key = type.keyColumns();
  if (key.size() == 1 && key[0].type == ColumnType::u32 && key[0].role == ColumnRole::exact) {
    return {};
  }
  return Outcome::failure("its key is not one column of type U32");
}

// The key of a default entry says nothing.
Outcome checkDefaultKey(const TableType& type) {
  const auto& key = type.keyColumns();
  if (key.size() == 1 && key[0].type == ColumnType::u8 && key[0].role == ColumnRole::exact) {
    return {};
  }
  return Outcome::failure("its key is not one column of type U8");
}

Outcome checkKeyOf(const DeviceTable& table, const TableType& type, const TableLayout& layout) {
  switch (layout.kind) {
    case TableKind::match:
      return checkKey(table, type, layout);
    case TableKind::defaultEntry:
      return checkDefaultKey(type);
    default:
      return checkId(type);
  }
}

std::string partsText(const TableLayout& layout) {
  std::string text = layout.kind == TableKind::group ? "one column of type U32[]"
                     : layout.indirect ? "a column of type U32 (member or group) and one of type U8"
                                         " (whether it is a group)"
                                       : "the action";
  if (layout.meter) text += ", the meter";
  if (layout.counter) text += ", the counter";
  return text;
}

Outcome checkParts(const TableType& type, const TableLayout& layout) {
  using Part = TableType::Part;
  std::vector<std::pair<Part, ColumnType>> wanted;
  if (layout.kind == TableKind::group) {
    wanted = {{Part::column, ColumnType::u32Array}};
  } else if (layout.indirect) {
    wanted = {{Part::column, ColumnType::u32}, {Part::column, ColumnType::u8}};
  } else {
    wanted = {{Part::action, ColumnType::none}};
  }
  if (layout.meter) wanted.emplace_back(Part::meter, ColumnType::none);
  if (layout.counter) wanted.emplace_back(Part::counter, ColumnType::none);
  const bool same =
      std::ranges::equal(type.valueParts(), wanted, [](const auto& part, const auto& want) {
        return part.part == want.first &&
               (part.part != Part::column || part.column.type == want.second);
      });
  if (same) return {};
  return Outcome::failure("its columns behind the key are not " + partsText(layout));
}

Outcome checkAction(const Lattice::ActionLayout& action, const ActionShape& shape) {
  const size_t wanted =
      std::max<size_t>(shape.fields.size(), 1);  // one of type Void stands for none
  if (action.fields.size() != wanted) {
    return Outcome::failure(fmt::format("it has {} fields for {} parameters", action.fields.size(),
                                        shape.fields.size()));
  }
  if (shape.fields.empty()) {
    if (action.fields[0].type == ColumnType::none) return {};
    return Outcome::failure("it needs the one field none : Void");
  }
  for (size_t i = 0; i < wanted; ++i) {
    const ActionField& field = shape.fields[i];
    Outcome same = checkValue(action.fields[i], field.bits, field.networkOrder);
    if (!same.ok()) return same;
  }
  return {};
}

// An action that the type lacks is refused by itself, unless it lacks all of them.
Outcome checkActions(const TableType& type, const TableLayout& layout) {
  bool any = layout.actions.empty();
  for (const ActionShape& shape : layout.actions) {
    const Lattice::ActionLayout* action = type.action(shape.id);
    if (action == nullptr) continue;
    any = true;
    const Outcome same = checkAction(*action, shape);
    if (same.ok()) continue;
    return Outcome::failure(fmt::format("its action {}: {}", quoted(shape.name), same.reason()));
  }
  if (any) return {};
  return Outcome::failure("its type has none of the table's actions");
}

}  // namespace

Vela::Outcome checkRows(const DeviceTable& table, const TableType& type,
                        const TableLayout& layout) {
  Outcome same = checkKeyOf(table, type, layout);
  if (same.ok()) same = checkParts(type, layout);
  if (same.ok()) same = checkActions(type, layout);
  return same;
}

}  // namespace Pipeline
