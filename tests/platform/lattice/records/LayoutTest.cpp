// Stored records: round trips, golden bytes, and a refusal at every other length.
#include "platform/lattice/records/StoreLayout.h"

#include <gtest/gtest.h>

#include <random>

namespace Lattice {
namespace {

using namespace std::string_literals;

std::string encoded(const JournalChange& change) {
  std::string bytes(change.encodedSize(), '\0');
  change.encode(bytes.data());
  return bytes;
}

TEST(StoreLayout, HasTheseBytes) {
  EXPECT_EQ((JournalState{1, 1, 3, 4}.encode()),
            "\1\0\0\0\0\0\0\0\1\0\0\0\0\0\0\0\3\0\0\0\0\0\0\0\4\0\0\0"s);
  EXPECT_EQ((TableRecord{5, "T", "def"}.encode()), "\5\0\0\0\1\0\0\0T\3\0\0\0def"s);
  EXPECT_EQ(encoded({1, 2, 3, JournalChange::unchanged, "key", "va"}),
            "\1\0\0\0\0\0\0\0\2\0\0\0\0\0\0\0\3\0\0\0\2\3\0\2\0\0\0keyva"s);
}

TEST(StoreLayout, TakesBackWhatItWroteAndNothingCutShort) {
  const std::string state = JournalState{9, 8, 7, 6}.encode();
  const std::string table = TableRecord{5, "type", "definition"}.encode();
  EXPECT_EQ(JournalState::decode(state)->typesVersion, 7u);
  EXPECT_EQ(TableRecord::decode(table)->definition, "definition");
  for (size_t size = 0; size < state.size(); ++size) {
    EXPECT_FALSE(JournalState::decode(state.substr(0, size)));
  }
  for (size_t size = 0; size < table.size(); ++size) {
    EXPECT_FALSE(TableRecord::decode(table.substr(0, size)));
  }
  EXPECT_FALSE(JournalState::decode(state + "x"));
  EXPECT_FALSE((JournalState::decode(JournalState{1, 2, 0, 0}.encode()))) << "trimmed the future";
  const std::string change = encoded({1, 2, 3, JournalChange::deleted, "key", ""});
  for (size_t size = 0; size < change.size(); ++size) {
    std::string_view cut = std::string_view(change).substr(0, size);
    EXPECT_FALSE(JournalChange::takeFrom(cut));
  }
  std::string_view rest = change;
  EXPECT_EQ(JournalChange::takeFrom(rest)->key, "key");
  EXPECT_TRUE(rest.empty());
  for (size_t size = 0; size < StoredRow::headSize; ++size) {
    EXPECT_FALSE(StoredRow::decode(std::string(size, 'r')));
  }
}

TEST(StoreLayout, SurvivesGarbage) {
  std::mt19937 random(3);
  for (int round = 0; round < 20000; ++round) {
    std::string bytes(random() % 64, '\0');
    for (char& c : bytes) c = static_cast<char>(random() % 4 ? 0 : random());
    JournalState::decode(bytes);
    TableRecord::decode(bytes);
    std::string_view rest = bytes;
    while (const auto change = JournalChange::takeFrom(rest)) {
      EXPECT_LE(change->key.size() + change->value.size(), bytes.size());
    }
  }
}

}  // namespace
}  // namespace Lattice
