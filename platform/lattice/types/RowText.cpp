// Rows for people.
#include <arpa/inet.h>

#include <cstdio>
#include <cstring>

#include "platform/lattice/records/Packing.h"
#include "platform/lattice/types/IpGenPrefix.h"
#include "platform/lattice/types/RowWalk.h"
#include "platform/lattice/types/TableType.h"

namespace Lattice {
namespace {

std::string hexText(std::string_view bytes) {
  std::string text = "0x";
  char digits[3];
  for (const char c : bytes) {
    std::snprintf(digits, sizeof digits, "%02x", static_cast<unsigned char>(c));
    text += digits;
  }
  return text;
}

std::string ethText(std::string_view bytes) {
  char text[18];
  const auto* b = reinterpret_cast<const unsigned char*>(bytes.data());
  std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", b[0], b[1], b[2], b[3], b[4],
                b[5]);
  return text;
}

std::string ipText(int family, const void* address) {
  char text[INET6_ADDRSTRLEN] = "";
  inet_ntop(family, address, text, sizeof text);
  return text;
}

std::string prefixText(std::string_view bytes) {
  IpGenPrefix prefix;
  std::memcpy(&prefix, bytes.data(), sizeof prefix);
  const int family = prefix.family == IpGenPrefix::ipv4   ? AF_INET
                     : prefix.family == IpGenPrefix::ipv6 ? AF_INET6
                                                          : 0;
  if (family == 0) return hexText(bytes);
  return ipText(family, prefix.address.data()) + "/" + std::to_string(prefix.length);
}

// `bytes` are big-endian here.
std::string columnText(const Column& column, std::string_view bytes) {
  switch (column.type) {
    case ColumnType::ipAddr:
      return ipText(AF_INET, bytes.data());
    case ColumnType::ip6Addr:
      return ipText(AF_INET6, bytes.data());
    case ColumnType::ethAddr:
      return ethText(bytes);
    case ColumnType::ipGenPrefix:
      return prefixText(bytes);
    default:
      return hexText(bytes);
  }
}

std::string reversed(std::string_view bytes) { return {bytes.rbegin(), bytes.rend()}; }

std::string decimalText(std::string_view bytes) {
  uint64_t value = 0;
  for (const char c : bytes) value = value << 8 | static_cast<unsigned char>(c);
  return std::to_string(value);
}

template <typename T>
std::string arrayText(std::string_view elements) {
  std::string text = "[";
  for (size_t i = 0; i < elements.size(); i += sizeof(T)) {
    if (i > 0) text += ", ";
    text += std::to_string(loadAt<T>(elements.data() + i));
  }
  return text + "]";
}

std::string valueText(const Column& column, std::string_view bytes) {
  if (column.type == ColumnType::u32Array) return arrayText<uint32_t>(bytes);
  if (column.type == ColumnType::u64Array) return arrayText<uint64_t>(bytes);
  return column.type <= ColumnType::u64 ? columnText(column, reversed(bytes))
                                        : columnText(column, bytes);
}

struct ValueTexts {
  std::vector<ColumnText> texts;

  void column(const TableType::ValuePart& part, const Column& column, std::string_view bytes) {
    const bool counting =
        part.part == TableType::Part::meter || part.part == TableType::Part::counter;
    if (counting) {
      texts.push_back({part.column.name + "." + column.name, decimalText(reversed(bytes))});
    } else if (&column != &fixedColumns(part).front() || part.part != TableType::Part::action) {
      texts.push_back({column.name, valueText(column, bytes)});
    }
  }
  void action(const ActionLayout& action) { texts.push_back({"action", action.name}); }
};

}  // namespace

std::vector<ColumnText> keyTexts(const TableType& type, std::string_view key) {
  std::vector<ColumnText> texts;
  const bool fits = walkKey(type, key, [&](const Column& column, std::string_view bytes) {
    const bool isCount = column.role == ColumnRole::priority || column.role == ColumnRole::length ||
                         column.role == ColumnRole::present;
    texts.push_back({column.name, isCount ? decimalText(bytes) : columnText(column, bytes)});
  });
  if (fits) return texts;
  throw TypeError("a row's key does not have the layout of table type " + type.name());
}

std::vector<ColumnText> valueTexts(const TableType& type, std::string_view value) {
  ValueTexts visitor;
  if (walkValue(type, value, visitor)) return std::move(visitor.texts);
  throw TypeError("a row's value does not have the layout of table type " + type.name());
}

}  // namespace Lattice
