// Table types: the layout of a table's rows, compiled from a definition text.
//
// A definition, as the pipeline file carries it (blanks and // comments are free):
//
//   key vrf_id : U16;
//   key ipv4_dst : IpGenPrefix;
//   key ether_type : U16 value; key ether_type_mask : U16 mask;   // a ternary field's two slots
//   key priority : U32 priority;
//   action {                       // the action column: its value, a P4 action id, selects ...
//     set_nexthop 16777218 { nexthop_id : U32; }
//     drop 16777219 { none : Void; }
//   }                              // ... the fields that follow
//   meter;                         // flag U8, then cir, cburst, pir, pburst, each U64
//   counter;                       // flag U8, then bytes, packets, each U64
//   member_id : U32[];             // an array
//
// Column types: U8 U16 U32 U64 (host order), IpAddr (4 bytes), Ip6Addr (16), EthAddr (6),
// Bytes<N> (N bytes, N up to 1024), Bits<W> (a number of W bits, in (W + 7) / 8 bytes), all in
// network order; IpGenPrefix (24, see its header); T[] (an array of U32 or U64, `value` columns
// only); Void (no bytes).
// A U32 may stand for a string of the controller's: `port : U32 named port_t;`, in a key before the
// role. The strings are rows of the table translation.port_t.
// Roles of key columns: none (exact), range (one value), priority (last of the key), and pairs in
// this order: value and mask, a ternary field; low and high, a range with both its ends; prefix and
// length, an LPM field; optional and present, a field that matches anything where present is 0 (its
// value is then 0). The two columns of the first two pairs have one type; length is an unsigned
// integer, present a U8. IpGenPrefix keys match by longest prefix.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace Lattice {

// The definition, or a field list, is wrong; the message names type, line and the expected text.
class TypeError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

enum class ColumnType : uint8_t {
  u8,
  u16,
  u32,
  u64,
  ipAddr,
  ip6Addr,
  ethAddr,
  bytes,
  ipGenPrefix,
  u32Array,
  u64Array,
  none
};
enum class ColumnRole : uint8_t {
  exact,
  value,
  mask,
  range,
  priority,
  low,
  high,
  prefix,
  length,
  optional,
  present
};

struct Column {
  std::string name;
  ColumnType type = ColumnType::none;
  ColumnRole role = ColumnRole::exact;
  uint32_t size = 0;  // bytes; 0 for arrays and none
  uint32_t bits = 0;  // of a Bits<W>; else 0
  std::string named;  // the type of the strings that its numbers stand for; else empty
};

struct ActionLayout {
  std::string name;
  uint32_t actionId = 0;
  std::vector<Column> fields;
};

// Immutable once compiled; share it freely between threads. compile() throws, nothing else does.
class TableType {
 public:
  // Throws TypeError.
  static std::shared_ptr<const TableType> compile(std::string name, std::string definition);

  const std::string& name() const { return name_; }
  const std::string& definition() const { return definition_; }
  const std::vector<Column>& keyColumns() const { return keyColumns_; }
  // Value columns in order. The action column, the meter and the counter each stand here as
  // columns too (names "action", "meter", "counter").
  enum class Part : uint8_t { column, action, meter, counter };
  struct ValuePart {
    Part part = Part::column;
    Column column;  // for Part::column
  };
  const std::vector<ValuePart>& valueParts() const { return valueParts_; }
  const std::vector<ActionLayout>& actions() const { return actions_; }
  const ActionLayout* action(uint32_t actionId) const;  // null when not of this type
  uint32_t keySize() const { return keySize_; }         // bytes

 private:
  std::string name_;
  std::string definition_;
  std::vector<Column> keyColumns_;
  std::vector<ValuePart> valueParts_;
  std::vector<ActionLayout> actions_;
  uint32_t keySize_ = 0;
  friend class TypeCompiler;
};

// A row: packed key columns and packed value columns. Key integers are stored big-endian so that
// rows sort by value; all else is stored as the columns hold it. Value layout: each part in order;
// action: id u32 little-endian, then that action's fields; array: count u32 little-endian, then its
// elements, little-endian; integers little-endian; meter 33 bytes, counter 17.
struct Row {
  std::string key;
  std::string value;
  friend bool operator==(const Row&, const Row&) = default;
};

// One column of a row, for people: name and text ("10.0.0.0/8", "00:11:22:33:44:55", "0x0800").
struct ColumnText {
  std::string name;
  std::string text;
};
// Throws TypeError when the bytes do not have the type's layout.
std::vector<ColumnText> keyTexts(const TableType& type, std::string_view key);
std::vector<ColumnText> valueTexts(const TableType& type, std::string_view value);

// Types by name. The process-wide registry holds the types that Pollen has compiled.
class TypeRegistry {
 public:
  virtual ~TypeRegistry() = default;
  virtual std::shared_ptr<const TableType> type(std::string_view name) const = 0;  // may be null
  virtual void typeIs(std::shared_ptr<const TableType> type) = 0;
  virtual void typeDel(std::string_view name) = 0;
};
TypeRegistry& TheTypeRegistry();

}  // namespace Lattice
