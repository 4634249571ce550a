// How the agent's shared tables hold a pipeline: for each P4 table and action profile the slots of
// its key and the fields of its actions; and the parts that cannot be held, with the reason.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "pipeline/Extensions.h"

namespace Pipeline {

class Findings;
class P4InfoLookup;

// A part of a match key: an exact field is one slot, a ternary one two (value, mask), an LPM one
// two (prefix, prefix length), a range one. With the extension for fields, a range has two (low,
// high), and an optional field, too (optional, present).
enum class SlotRole : uint8_t {
  exact,
  value,
  mask,
  range,
  prefix,
  prefixLength,
  low,
  high,
  optional,
  present
};

// Whether such a slot is the first of a field.
constexpr bool isFirst(SlotRole role) {
  return role != SlotRole::mask && role != SlotRole::prefixLength && role != SlotRole::high &&
         role != SlotRole::present;
}

struct Slot {
  std::string name;  // the column's, legal and unique in its table
  std::string type;  // "U16", "IpGenPrefix", ...
  SlotRole role = SlotRole::exact;
  uint32_t bits = 0;
  size_t field = 0;  // position among the P4 table's match fields
  // The translated type of the strings that its numbers stand for; empty for other numbers.
  std::string named = {};

  bool hasColumn() const { return type != "PrefixLen"; }  // else it is in the IpGenPrefix before it
};

struct ActionField {
  std::string name;
  std::string type;
  uint32_t bits = 0;
  bool networkOrder = false;  // else its 2 or 4 bytes are turned to host order
  std::string named = {};     // as of a slot
};

struct ActionShape {
  std::string name;
  uint32_t id = 0;
  std::vector<ActionField> fields;  // empty: the action has no parameters
};

// A default entry has a table of one row, with a key that is always 0.
enum class TableKind : uint8_t { match, member, group, defaultEntry };
// A table's place in a device configuration: its class, and the id of the P4 table or profile.
using TableRef = std::pair<TableKind, uint32_t>;

// How the tables of shared memory are called.
using TableNames = std::map<TableRef, std::string>;

struct TableLayout {
  TableKind kind = TableKind::match;
  std::string tableName;
  std::string typeName;
  uint32_t id = 0;  // of the P4 table, or of the action profile
  std::vector<Slot> slots;
  bool priority = false;
  bool indirect = false;  // entries name members or groups of an action profile
  bool meter = false;
  bool counter = false;
  std::vector<ActionShape> actions;
};

// "TABLE_CLASS_MATCH_ACTION", or the member, group or default class.
const char* tableClass(TableKind kind);

// The definition of a layout's table type, in the language of platform/lattice/types/TableType.h.
std::string definitionText(const TableLayout& layout);

struct PipelineLayout {
  std::vector<TableLayout> tables;
  // The parts that cannot be programmed, and why. No table has a refused action.
  std::map<TableRef, std::string> refused;
  std::map<uint32_t, std::string> refusedActions;

  const TableLayout* table(const TableRef& ref) const;  // null when refused or unknown
};

// Parts that cannot be programmed give warnings and are left out. The references of the P4Info must
// be sound. Tables with a name in `given` get that name, others one by their P4 alias.
PipelineLayout pipelineLayout(const P4InfoLookup& index, const Extensions& extensions,
                              Findings* findings, const TableNames& given = {});

}  // namespace Pipeline
