// Rows for people.
#include <arpa/inet.h>

#include <cstdio>
#include <cstring>

#include "platform/lattice/records/Packing.h"
#include "platform/lattice/types/IpGenPrefix.h"
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

std::string priorityText(std::string_view bytes) {
  uint64_t value = 0;
  for (const char c : bytes) value = value << 8 | static_cast<unsigned char>(c);
  return std::to_string(value);
}

// Takes the columns of a value apart, front to back.
class ValueTexts {
 public:
  ValueTexts(const TableType& type, std::string_view value) : type_(type), bytes_(value) {}

  std::vector<ColumnText> all() {
    for (const auto& part : type_.valueParts()) {
      switch (part.part) {
        case TableType::Part::column:
          add(part.column);
          break;
        case TableType::Part::action:
          addAction();
          break;
        case TableType::Part::meter:
          addFlag("meter.flag");
          for (const char* name : {"meter.cir", "meter.cburst", "meter.pir", "meter.pburst"}) {
            addNumber(name);
          }
          break;
        case TableType::Part::counter:
          addFlag("counter.flag");
          for (const char* name : {"counter.bytes", "counter.packets"}) addNumber(name);
          break;
      }
    }
    if (!bytes_.finished()) wrong();
    return std::move(texts_);
  }

 private:
  [[noreturn]] void wrong() const {
    throw TypeError("a row's value does not have the layout of table type " + type_.name());
  }

  void add(const Column& column) {
    if (column.type == ColumnType::none) return;
    if (column.type == ColumnType::u32Array) return addArray<uint32_t>(column);
    if (column.type == ColumnType::u64Array) return addArray<uint64_t>(column);
    const std::string_view bytes = bytes_.takeBytes(column.size);
    if (bytes_.bad()) wrong();
    const bool number = column.type <= ColumnType::u64;
    texts_.push_back(
        {column.name, number ? columnText(column, reversed(bytes)) : columnText(column, bytes)});
  }

  template <typename T>
  void addArray(const Column& column) {
    const auto count = bytes_.take<uint32_t>();
    const std::string_view elements = bytes_.takeBytes(size_t{count} * sizeof(T));
    if (bytes_.bad()) wrong();
    std::string text = "[";
    for (size_t i = 0; i < count; ++i) {
      if (i > 0) text += ", ";
      text += std::to_string(loadAt<T>(elements.data() + i * sizeof(T)));
    }
    texts_.push_back({column.name, text + "]"});
  }

  void addAction() {
    const ActionLayout* action = type_.action(bytes_.take<uint32_t>());
    if (bytes_.bad() || !action) wrong();
    texts_.push_back({"action", action->name});
    for (const Column& field : action->fields) add(field);
  }

  void addFlag(const char* name) {
    texts_.push_back({name, std::to_string(bytes_.take<uint8_t>())});
  }
  void addNumber(const char* name) {
    texts_.push_back({name, std::to_string(bytes_.take<uint64_t>())});
  }

  const TableType& type_;
  Unpacker bytes_;
  std::vector<ColumnText> texts_;
};

}  // namespace

std::vector<ColumnText> keyTexts(const TableType& type, std::string_view key) {
  if (key.size() != type.keySize()) {
    throw TypeError("a row's key does not have the layout of table type " + type.name());
  }
  std::vector<ColumnText> texts;
  for (const Column& column : type.keyColumns()) {
    const std::string_view bytes = key.substr(0, column.size);
    key.remove_prefix(column.size);
    texts.push_back({column.name, column.role == ColumnRole::priority ? priorityText(bytes)
                                                                      : columnText(column, bytes)});
  }
  return texts;
}

std::vector<ColumnText> valueTexts(const TableType& type, std::string_view value) {
  return ValueTexts(type, value).all();
}

}  // namespace Lattice
