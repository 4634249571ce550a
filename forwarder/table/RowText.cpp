// Texts come from the table type; bytes it cannot read are shown as they are.
#include "forwarder/table/RowText.h"

#include <fmt/format.h>

#include <algorithm>
#include <vector>

#include "forwarder/table/ProgrammedTable.h"

namespace Forwarder {
namespace {

std::string hex(std::string_view bytes) {
  std::string text = "0x";
  for (const char byte : bytes) text += fmt::format("{:02x}", static_cast<uint8_t>(byte));
  return text;
}

std::string columnsText(const std::vector<Lattice::ColumnText>& columns) {
  std::string text;
  for (const Lattice::ColumnText& column : columns) {
    if (!text.empty()) text += ' ';
    text += column.name;
    text += '=';
    text += column.text;
  }
  return text;
}

}  // namespace

std::string keyText(const Lattice::TableType* type, std::string_view key) {
  try {
    if (type) return columnsText(Lattice::keyTexts(*type, key));
  } catch (const Lattice::TypeError&) {
    // The bytes are all there is to show.
  }
  return hex(key);
}

std::string rowText(const Lattice::TableType* type, std::string_view key, std::string_view value) {
  try {
    if (type) {
      return keyText(type, key) + " -> " + columnsText(Lattice::valueTexts(*type, value));
    }
  } catch (const Lattice::TypeError&) {
    // The bytes are all there is to show.
  }
  return keyText(type, key) + " -> " + hex(value);
}

std::string dumpText(const ProgrammedTable& table) {
  if (!table.rows()) return {};
  std::vector<const StoredRow*> rows;
  rows.reserve(table.rowCount());
  table.rows()->forEach([&](const StoredRow& row) { rows.push_back(&row); });
  std::sort(rows.begin(), rows.end(),
            [](const StoredRow* a, const StoredRow* b) { return a->key() < b->key(); });
  std::string text;
  for (const StoredRow* row : rows) {
    text += table.name();
    text += ' ';
    text += rowText(table.type(), row->key(), row->value());
    text += '\n';
  }
  return text;
}

}  // namespace Forwarder
