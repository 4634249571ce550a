// The bytes of a journal's records.
#include "journal/Record.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/journal/Records.h"

namespace Journal {
namespace {

using testing::ElementsAre;
using testing::Field;

TEST(JournalRecord, RequestsComeBackAsTheyWere) {
  const std::string_view pieces[] = {"abc", "", "defgh"};
  const std::string bytes = bytesOf(
      Draft::request(RecordKind::write, "spiffe://lab/a", "ipv4:192.0.2.1:5000", pieces), 7);
  const auto record = recordAt(bytes);
  ASSERT_TRUE(record);
  EXPECT_EQ(record->sequence, 7u);
  EXPECT_EQ(record->time, someTime);
  const auto request = requestOf(*record);
  ASSERT_TRUE(request);
  EXPECT_EQ(request->identity, "spiffe://lab/a");
  EXPECT_EQ(request->address, "ipv4:192.0.2.1:5000");
  EXPECT_EQ(request->bytes, "abcdefgh");
  EXPECT_FALSE(outcomeOf(*record)) << "it is none";
}

TEST(JournalRecord, OutcomesComeBackAsTheyWere) {
  const std::string bytes = bytesOf(Draft::outcome({.request = 7,
                                                    .code = 2,
                                                    .message = "2 failed",
                                                    .failures = {{0, 6, "there"}, {5, 8, ""}}}),
                                    9);
  const auto outcome = outcomeOf(*recordAt(bytes));
  ASSERT_TRUE(outcome);
  EXPECT_EQ(outcome->request, 7u);
  EXPECT_EQ(outcome->code, 2u);
  EXPECT_EQ(outcome->message, "2 failed");
  EXPECT_THAT(outcome->failures,
              ElementsAre(testing::AllOf(Field(&Failure::index, 0u), Field(&Failure::code, 6u),
                                         Field(&Failure::message, "there")),
                          testing::AllOf(Field(&Failure::index, 5u), Field(&Failure::code, 8u),
                                         Field(&Failure::message, ""))));
}

// A file of another day must still be read.
TEST(JournalRecord, HaveTheBytesThatTheyAlwaysHad) {
  const std::string bytes = bytesOf(Draft::gap({3, GapReason::noRoom}), 0x0102);
  const char golden[] =
      "\x1a\0\0\0"
      "\x57\xc4\xb1\x15"
      "\x02\x01\0\0\0\0\0\0"
      "\x00\xca\x9a\x3b\0\0\0\0"
      "\x06"
      "\x03\0\0\0\0\0\0\0"
      "\x02";
  EXPECT_EQ(bytes, std::string(golden, sizeof golden - 1));
}

TEST(JournalRecord, IsNoneWhenItIsCutShortOrChangedAnywhere) {
  const std::string bytes =
      bytesOf(Draft::outcome({.request = 7, .failures = {{0, 6, "there"}}}), 9);
  for (size_t size = 0; size < bytes.size(); ++size) {
    EXPECT_FALSE(recordAt(bytes.substr(0, size))) << size;
  }
  for (size_t place = 0; place < bytes.size(); ++place) {
    std::string changed = bytes;
    changed[place] = static_cast<char>(changed[place] ^ 0x10);
    EXPECT_FALSE(recordAt(changed)) << place;
  }
  EXPECT_TRUE(recordAt(bytes + "more"));
}

TEST(JournalRecord, BodiesThatAreCutShortAreNone) {
  const std::string bytes =
      bytesOf(Draft::outcome({.request = 7, .failures = {{0, 6, "there"}}}), 9);
  const Record record = *recordAt(bytes);
  for (size_t size = 0; size < record.body.size(); ++size) {
    Record cut = record;
    cut.body = record.body.substr(0, size);
    const bool isWholeWithoutFailures = size == 16;
    EXPECT_EQ(outcomeOf(cut).has_value(), isWholeWithoutFailures) << size;
  }
}

}  // namespace
}  // namespace Journal
