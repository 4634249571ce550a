// Constant entries of a pipeline file as text for people; the conversion checks them.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "pipeline/DeviceConfig.h"
#include "pipeline/EntryNames.h"

namespace p4::config::v1 {
class Table;
}

namespace Pipeline {

class P4InfoLookup;

struct EntryText {
  std::vector<std::pair<std::string, std::string>> match;   // P4 field name, value
  std::string action;                                       // its P4 name
  std::vector<std::pair<std::string, std::string>> params;  // P4 parameter name, value
};

// `names`: the strings of translated types; others stand as their numbers. Throws PipelineError
// when the entry does not fit the table: lengths, widths, action, priority.
EntryText entryText(const DeviceEntry& entry, const p4::config::v1::Table& table,
                    const TableLayout& layout, const P4InfoLookup& index,
                    const NamesByNumber& names = {});

}  // namespace Pipeline
