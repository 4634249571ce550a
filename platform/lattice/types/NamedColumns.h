// Columns whose numbers stand for strings of controllers, and the tables with these strings.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/lattice/types/TableType.h"

namespace Lattice {

// The table with the strings of a type (Column::named); its key is the number.
std::string namesTable(std::string_view type);
// The string in the value of such a row. Nothing when it has another layout.
std::optional<std::string> nameOfRow(const TableType& type, std::string_view value);

// Nothing for a number without a string.
using NameOf = std::function<std::optional<std::string>(const std::string& type, uint32_t number)>;

// As keyTexts() and valueTexts(), with strings in quotes in place of their numbers; bytes that do
// not print stand as \xNN.
std::vector<ColumnText> namedKeyTexts(const TableType& type, std::string_view key,
                                      const NameOf& nameOf);
std::vector<ColumnText> namedValueTexts(const TableType& type, std::string_view value,
                                        const NameOf& nameOf);
std::string quotedName(std::string_view name);

}  // namespace Lattice
