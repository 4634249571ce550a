// Stored records: round trips, golden bytes, and a refusal at every other length.
#include "platform/lattice/records/StoreLayout.h"

#include <gtest/gtest.h>

#include <random>

namespace Lattice {
namespace {

using namespace std::string_literals;

TEST(StoreLayout, HasTheseBytesAndIsReadFromNoOthers) {
  const std::string table = TableRecord{5, "T", "def"}.encode();
  EXPECT_EQ(table, "\5\0\0\0\1\0\0\0T\3\0\0\0def"s);
  EXPECT_EQ(TableRecord::decode(table)->definition, "def");
  EXPECT_FALSE(TableRecord::decode(table + "x"));
  for (size_t size = 0; size < table.size(); ++size) {
    EXPECT_FALSE(TableRecord::decode(table.substr(0, size)));
  }
  std::mt19937 random(3);
  for (int round = 0; round < 20000; ++round) {
    std::string bytes(random() % 64, '\0');
    for (char& c : bytes) c = static_cast<char>(random() % 4 ? 0 : random());
    if (const auto record = TableRecord::decode(bytes)) {
      EXPECT_LE(record->typeName.size() + record->definition.size(), bytes.size());
    }
  }
}

}  // namespace
}  // namespace Lattice
