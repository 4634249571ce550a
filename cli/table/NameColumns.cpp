// Numbers of translated types as the strings that they stand for.
#include "cli/table/TableDump.h"
#include "platform/lattice/types/NamedColumns.h"

namespace {

const std::string namesPrefix = Lattice::namesTable("");

Lattice::NameOf nameOf(const DumpedNames& names) {
  return [&names](const std::string& type, uint32_t number) -> std::optional<std::string> {
    const auto ofType = names.find(type);
    if (ofType == names.end()) return std::nullopt;
    const auto found = ofType->second.find(number);
    return found == ofType->second.end() ? std::nullopt : std::optional(found->second);
  };
}

}  // namespace

bool isNameTable(const DumpedTable& table) {
  return table.type && table.name.starts_with(namesPrefix);
}

void addName(const DumpedTable& table, const DumpedRow& row, DumpedNames* names) {
  if (const auto name = Lattice::nameOfRow(*table.type, row.value)) {
    (*names)[table.name.substr(namesPrefix.size())][profileId(row)] = *name;
  }
}

std::vector<Lattice::ColumnText> keyColumns(const DumpedNames& names, const DumpedTable& table,
                                            const std::string& key) {
  return Lattice::namedKeyTexts(*table.type, key, nameOf(names));
}

std::vector<Lattice::ColumnText> valueColumns(const DumpedNames& names, const DumpedTable& table,
                                              const std::string& value) {
  if (isNameTable(table)) {
    if (const auto name = Lattice::nameOfRow(*table.type, value)) {
      return {{"name", Lattice::quotedName(*name)}};
    }
  }
  return Lattice::namedValueTexts(*table.type, value, nameOf(names));
}
