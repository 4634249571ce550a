#include "platform/lattice/types/NamedColumns.h"

#include <cctype>
#include <cstdio>
#include <map>

#include "platform/lattice/records/Packing.h"
#include "platform/lattice/types/RowWalk.h"

namespace Lattice {
namespace {

struct NameColumns {
  uint16_t length = 0;
  std::string_view text;

  void column(const TableType::ValuePart&, const Column& column, std::string_view bytes) {
    if (column.name == "length" && bytes.size() == sizeof length) {
      length = loadAt<uint16_t>(bytes.data());
    }
    if (column.name == "text") text = bytes;
  }
  static void action(const ActionLayout&) {}
};

struct NamedValues {
  const NameOf& nameOf;
  std::map<std::string, std::string> texts = {};  // by column

  void column(const TableType::ValuePart&, const Column& column, std::string_view bytes) {
    if (column.named.empty()) return;
    const auto name = nameOf(column.named, loadAt<uint32_t>(bytes.data()));
    if (name) texts[column.name] = quotedName(*name);
  }
  static void action(const ActionLayout&) {}
};

uint32_t bigEndian(std::string_view bytes) {
  uint32_t number = 0;
  for (const char byte : bytes) number = number << 8 | static_cast<uint8_t>(byte);
  return number;
}

}  // namespace

std::string namesTable(std::string_view type) { return "translation." + std::string(type); }

std::optional<std::string> nameOfRow(const TableType& type, std::string_view value) {
  NameColumns name;
  if (!walkValue(type, value, name)) return std::nullopt;
  if (name.length == 0 || name.length > name.text.size()) return std::nullopt;
  return std::string(name.text.substr(0, name.length));
}

std::vector<ColumnText> namedKeyTexts(const TableType& type, std::string_view key,
                                      const NameOf& nameOf) {
  std::vector<ColumnText> texts = keyTexts(type, key);
  size_t at = 0;
  walkKey(type, key, [&](const Column& column, std::string_view bytes) {
    ColumnText& text = texts[at++];
    if (column.named.empty()) return;
    if (const auto name = nameOf(column.named, bigEndian(bytes))) text.text = quotedName(*name);
  });
  return texts;
}

std::vector<ColumnText> namedValueTexts(const TableType& type, std::string_view value,
                                        const NameOf& nameOf) {
  std::vector<ColumnText> texts = valueTexts(type, value);
  NamedValues named{nameOf};
  walkValue(type, value, named);
  for (ColumnText& text : texts) {
    const auto found = named.texts.find(text.name);
    if (found != named.texts.end()) text.text = found->second;
  }
  return texts;
}

std::string quotedName(std::string_view name) {
  std::string text = "\"";
  char escaped[5];
  for (const char c : name) {
    const auto byte = static_cast<unsigned char>(c);
    const bool isPlain = byte < 0x80 && std::isprint(byte) != 0 && c != '"' && c != '\\';
    std::snprintf(escaped, sizeof escaped, "\\x%02x", byte);
    text += isPlain ? std::string(1, c) : escaped;
  }
  return text + '"';
}

}  // namespace Lattice
