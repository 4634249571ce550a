// Every structure against the plain reading of its type: a scan over all rows, column by column.
#include "forwarder/table/MatchTable.h"

#include <gtest/gtest.h>

#include <iostream>
#include <map>
#include <random>
#include <tuple>

#include "tests/forwarder/Packing.h"

namespace Forwarder {
namespace {

using namespace ForwarderTest;
using Lattice::ColumnRole;
using Lattice::ColumnType;

constexpr unsigned seed = 20240611;

// What the look-up promises, without any structure. It reads the type, not the layout under test.
class Oracle {
 public:
  explicit Oracle(const Lattice::TableType& type) : type_(type) {}
  std::map<std::string, std::string> rows;

  const std::string* lookup(const std::string& packet) const {
    const std::string* best = nullptr;
    for (const auto& [key, value] : rows) {
      if (matches(key, packet) && (!best || rank(key) > rank(*best))) best = &key;
    }
    return best;
  }

 private:
  static bool bitSet(const std::string& bytes, size_t bit) {
    return bytes[bit / 8] >> (7 - bit % 8) & 1;
  }
  static bool sameBits(const std::string& a, const std::string& b, size_t bits) {
    for (size_t i = 0; i < bits; ++i) {
      if (bitSet(a, i) != bitSet(b, i)) return false;
    }
    return true;
  }
  bool matches(const std::string& key, const std::string& packet) const {
    size_t inKey = 0;
    size_t inPacket = 0;
    const auto& columns = type_.keyColumns();
    for (size_t i = 0; i < columns.size(); ++i) {
      const auto& column = columns[i];
      if (column.role == ColumnRole::priority) break;
      const std::string value = key.substr(inKey, column.size);
      const std::string field = packet.substr(inPacket, column.size);
      inKey += column.size;
      inPacket += column.size;
      if (column.role == ColumnRole::low) {
        const std::string high = key.substr(inKey, column.size);
        inKey += columns[++i].size;
        if (field < value || high < field) return false;
      } else if (column.role == ColumnRole::optional) {
        const bool present = key[inKey] != 0;
        inKey += columns[++i].size;
        if (present && value != field) return false;
      } else if (column.role == ColumnRole::prefix) {
        const auto unused = column.size * 8 - column.bits;
        const auto length = static_cast<uint8_t>(key[inKey]);
        inKey += columns[++i].size;
        if (!sameBits(value, field, unused + length)) return false;
      } else if (column.type == ColumnType::ipGenPrefix) {
        if (value[0] != field[0]) return false;
        if (!sameBits(value.substr(8), field.substr(8), static_cast<uint8_t>(value[1]))) {
          return false;
        }
      } else if (column.role == ColumnRole::value) {
        const std::string mask = key.substr(inKey, column.size);
        inKey += columns[++i].size;
        for (size_t bit = 0; bit < mask.size() * 8; ++bit) {
          if (bitSet(mask, bit) && bitSet(value, bit) != bitSet(field, bit)) return false;
        }
      } else if (value != field) {
        return false;
      }
    }
    return true;
  }
  // Greater is better; equal ones go to the least key, which the scan meets first.
  std::pair<uint64_t, std::vector<uint8_t>> rank(const std::string& key) const {
    std::pair<uint64_t, std::vector<uint8_t>> rank;
    size_t offset = 0;
    for (const auto& column : type_.keyColumns()) {
      if (column.type == ColumnType::ipGenPrefix) rank.second.push_back(key[offset + 1]);
      if (column.role == ColumnRole::length) rank.second.push_back(key[offset]);
      if (column.role == ColumnRole::priority) {
        for (char byte : key.substr(offset)) rank.first = rank.first << 8 | uint8_t(byte);
      }
      offset += column.size;
    }
    return rank;
  }
  const Lattice::TableType& type_;
};

// Draws from so few values that keys repeat, nest and overlap, and packets hit.
class Dice {
 public:
  unsigned below(unsigned bound) { return std::uniform_int_distribution<>(0, bound - 1)(random_); }

  std::string key(const Lattice::TableType& type) {
    std::string key;
    for (const auto& column : type.keyColumns()) {
      if (column.role == ColumnRole::high) {  // not below the low end
        key += key.substr(key.size() - column.size);
        key.back() = static_cast<char>(key.back() + static_cast<char>(below(3)));
      } else if (column.role == ColumnRole::present) {
        key += static_cast<char>(below(2));
        if (key.back() == 0) key[key.size() - 2] = 0;  // the value, whose other bytes are 0
      } else if (column.role == ColumnRole::length) {
        appendLength(key, type);
      } else if (column.type == ColumnType::ipGenPrefix) {
        key += drawnPrefix();
      } else if (column.role == ColumnRole::mask) {
        key += std::string(column.size - 1, '\xff') + "\xff\xfe\xf0\x03\x00"[below(5)];
      } else {
        key += std::string(column.size - 1, '\0') + char(below(5));
      }
    }
    return key;
  }
  std::string packet(const Lattice::TableType& type) {
    std::string packet;
    for (const auto& column : type.keyColumns()) {
      if (isSecond(column.role) || column.role == ColumnRole::priority) continue;
      if (column.type == ColumnType::ipGenPrefix) {
        packet += below(2) ? prefix("10.0.0.0", 32) : prefix("fd00::", 128);
        packet[packet.size() - (packet[packet.size() - 24] == 1 ? 13 : 1)] = char(below(256));
      } else {
        packet += std::string(column.size - 1, '\0') + char(below(5));
      }
    }
    return packet;
  }

 private:
  static bool isSecond(ColumnRole role) {
    return role == ColumnRole::mask || role == ColumnRole::high || role == ColumnRole::length ||
           role == ColumnRole::present;
  }
  // The value before it is of one byte.
  void appendLength(std::string& key, const Lattice::TableType& type) {
    uint32_t bits = 0;
    for (const auto& column : type.keyColumns()) bits = std::max(bits, column.bits);
    const unsigned length = below(bits + 1);
    key.back() = static_cast<char>(key.back() & static_cast<char>(0xff << (bits - length)));
    key += static_cast<char>(length);
  }
  // Prefixes of one /24 or /120, down to the default route.
  std::string drawnPrefix() {
    const bool v6 = below(2);
    const unsigned bits = v6 ? 128 : 32;
    const unsigned length = below(4) == 0 ? below(bits + 1) : bits - below(9);
    std::string drawn = v6 ? prefix("fd00::", length) : prefix("10.0.0.0", length);
    drawn[8 + bits / 8 - 1] = char(below(256));
    clearHostBits(reinterpret_cast<uint8_t*>(drawn.data()) + 8, 16, length);
    return drawn;
  }
  std::mt19937 random_{seed};
};

struct Shape {
  const char* name;
  MatchKind kind;
  const char* definition;
};
void PrintTo(const Shape& shape, std::ostream* out) { *out << shape.name; }

class MatchTableTest : public testing::TestWithParam<Shape> {
 protected:
  const std::shared_ptr<const Lattice::TableType> type_ = typeOf(GetParam().definition);
  const std::unique_ptr<MatchTable> table_ = matchTableFactory(MatchLayout(*type_));
  Oracle oracle_{*type_};
  Dice dice_;

  void write() {
    const std::string key = dice_.key(*type_);
    const std::string value(dice_.below(3) * 4, char(dice_.below(256)));  // also of another size
    EXPECT_EQ(table_->rowIs(key, value).value(), value);
    oracle_.rows[key] = value;
  }
  void erase() {
    const std::string key = dice_.key(*type_);
    const StoredRow* row = table_->row(key);
    ASSERT_EQ(row != nullptr, oracle_.rows.erase(key) == 1);
    if (row) table_->rowDel(*row);
  }
  void sweepSome() {
    const char odd = char(dice_.below(2));
    const auto gone = [&](std::string_view key) {
      return (std::hash<std::string_view>()(key) & 1) == size_t(odd);
    };
    const size_t swept = table_->sweep([&](const StoredRow& row) { return gone(row.key()); });
    EXPECT_EQ(std::erase_if(oracle_.rows, [&](const auto& row) { return gone(row.first); }), swept);
  }
  // Counts the hits, so that a test that never hits is found out.
  void expectSameLookup(unsigned& hits) {
    const std::string packet = dice_.packet(*type_);
    ASSERT_EQ(packet.size(), table_->layout().packetSize());
    const std::string* expected = oracle_.lookup(packet);
    const StoredRow* hit =
        table_->lookup({reinterpret_cast<const uint8_t*>(packet.data()), packet.size()});
    ASSERT_EQ(hit != nullptr, expected != nullptr);
    if (!hit) return;
    ++hits;
    EXPECT_EQ(hit->key(), *expected);
    EXPECT_EQ(hit->value(), oracle_.rows[*expected]);
  }
};

TEST_P(MatchTableTest, FindsWhatAScanFinds) {
  std::cout << "seed " << seed << '\n';
  EXPECT_EQ(table_->layout().kind(), GetParam().kind);
  unsigned hits = 0;
  for (int step = 0; step < 6000 && !HasFatalFailure(); ++step) {
    const unsigned what = dice_.below(100);
    // Fills and empties by turns: structures must also shrink well.
    if (what < (step / 1000 % 2 ? 20u : 45u)) {
      write();
    } else if (what < 60) {
      erase();
    } else if (what == 60) {
      sweepSome();
    } else {
      expectSameLookup(hits);
    }
    ASSERT_EQ(table_->rowCount(), oracle_.rows.size());
  }
  EXPECT_GT(hits, 100u);
}

INSTANTIATE_TEST_SUITE_P(
    Shapes, MatchTableTest,
    testing::Values(
        Shape{"keyless", MatchKind::exact, "port : U32;"},
        Shape{"exact", MatchKind::exact, "key a : U16; key b : EthAddr; port : U32;"},
        Shape{"prefix", MatchKind::longestPrefix, "key dst : IpGenPrefix; port : U32;"},
        Shape{"prefixBetweenExactFields", MatchKind::longestPrefix,
              "key vrf : U16; key dst : IpGenPrefix; key class_id : U8; port : U32;"},
        Shape{"twoPrefixes", MatchKind::ternary,
              "key src : IpGenPrefix; key dst : IpGenPrefix; port : U32;"},
        Shape{"masks", MatchKind::ternary,
              "key a : U16 value; key a_mask : U16 mask; key b : U8; key c : Bytes<3> value;"
              "key c_mask : Bytes<3> mask; key priority : U32 priority; port : U32;"},
        Shape{"rangeOfOneValue", MatchKind::ternary,
              "key port : U16 range; key priority : U32 priority; mark : U32;"},
        Shape{"ranges", MatchKind::ternary,
              "key port : U16 low; key port_high : U16 high; key a : U8;"
              "key priority : U32 priority; mark : U32;"},
        Shape{"optional", MatchKind::ternary,
              "key a : U16 optional; key a_present : U8 present; key b : Bits<20> optional;"
              "key b_present : U8 present; key priority : U32 priority; mark : U32;"},
        Shape{"prefixOfBits", MatchKind::ternary,
              "key a : U8; key b : Bits<3> prefix; key b_len : U8 length; mark : U32;"},
        Shape{"prefixUnderPriority", MatchKind::ternary,
              "key dst : IpGenPrefix; key a : U8 value; key a_mask : U8 mask;"
              "key priority : U32 priority; port : U32;"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(MatchLayout, FindsTheFaultsThatNoPacketCouldMatch) {
  const MatchLayout layout(*typeOf("key vrf : U16; key dst : IpGenPrefix; port : U32;"));
  std::string unknownFamily = prefix("10.0.0.0", 8);
  unknownFamily[0] = 7;
  std::string behindAddress = prefix("10.0.0.0", 8);
  behindAddress[23] = 1;
  std::string padding = prefix("10.0.0.0", 8);
  padding[4] = 1;
  const struct {
    const char* what;
    std::string key;
    bool fault;
  } cases[] = {
      {"a prefix", big(1, 2) + prefix("10.0.0.0", 8), false},
      {"a default route", big(1, 2) + prefix("::", 0), false},
      {"a host", big(1, 2) + prefix("fd00::1", 128), false},
      {"too short", big(1, 2) + prefix("10.0.0.0", 8).substr(1), true},
      {"too long", big(1, 3) + prefix("10.0.0.0", 8), true},
      {"no bytes", "", true},
      {"family", big(1, 2) + unknownFamily, true},
      {"length beyond IPv4", big(1, 2) + prefix("10.0.0.0", 33), true},
      {"length beyond IPv6", big(1, 2) + prefix("fd00::", 129), true},
      {"bits behind the length", big(1, 2) + prefix("10.0.0.1", 8), true},
      {"bits behind an IPv4 address", big(1, 2) + behindAddress, true},
      {"padding", big(1, 2) + padding, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    if (c.fault) {
      EXPECT_THROW(layout.checkKey(c.key), Lattice::TypeError);
    } else {
      EXPECT_NO_THROW(layout.checkKey(c.key));
    }
  }
}

TEST(MatchLayout, FindsFaultsInPairsOfColumns) {
  const char* range = "key p : U16 low; key p_high : U16 high; m : U32;";
  const char* optional = "key a : U16 optional; key a_present : U8 present; m : U32;";
  const char* bits = "key a : Bits<12> prefix; key a_len : U8 length; m : U32;";
  const struct {
    const char* definition;
    std::string key;
    bool fault;
  } cases[] = {
      {range, big(2, 2) + big(2, 2), false},     {range, big(0, 2) + big(0xffff, 2), false},
      {range, big(3, 2) + big(2, 2), true},      {optional, big(7, 2) + big(1, 1), false},
      {optional, big(0, 2) + big(0, 1), false},  {optional, big(7, 2) + big(0, 1), true},
      {optional, big(7, 2) + big(2, 1), true},   {bits, big(0x0ff0, 2) + big(8, 1), false},
      {bits, big(0, 2) + big(0, 1), false},      {bits, big(0x0ff0, 2) + big(7, 1), true},
      {bits, big(0x1000, 2) + big(12, 1), true},  // beyond the width
      {bits, big(0, 2) + big(13, 1), true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.definition << testing::PrintToString(c.key));
    const MatchLayout layout(*typeOf(c.definition));
    if (c.fault) {
      EXPECT_THROW(layout.checkKey(c.key), Lattice::TypeError);
    } else {
      EXPECT_NO_THROW(layout.checkKey(c.key));
    }
  }
}

}  // namespace
}  // namespace Forwarder
