#include "P4Runtime/table/records/CacheRecords.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>

#include "PI/int/pi_int.h"
#include "platform/vela/Exception.h"
#include "tests/P4Runtime/support/AgentParts.h"

namespace P4Runtime {
namespace {

using Stored = std::vector<uint8_t>;
using TestSupport::bytes;

template <typename Record>
Stored stored(const Record& record) {
  Stored bytes(record.serializeLen());
  record.serialize(bytes.data());
  return bytes;
}

template <typename T>
void fill(CachePodArray<T>& array, size_t size) {
  std::vector<T> elements(size);
  for (size_t i = 0; i < size; ++i) elements[i] = static_cast<T>(i * 7 + 1);
  array.elementsAre(elements);
}

TableCacheEntry tableEntry(size_t keySize, size_t actionSize) {
  TableCacheEntry entry;
  entry.key = {{tableResource, 0x02000001}, 0x0102030405060708};
  entry.entryState = EntryState::stable;
  entry.matchKeyPriority = -2;
  entry.entryType = TableCacheEntry::directEntry;
  entry.indirectHandle = 0x1112131415161718;
  entry.actionId = 0x01000002;
  entry.controllerMetadata = 0x2122232425262728;
  fill(entry.matchKeyData, keySize);
  fill(entry.actionData, actionSize);
  return entry;
}

ActionProfileMemberCacheEntry member(size_t actionSize) {
  ActionProfileMemberCacheEntry entry;
  entry.key = {{actionProfileResource, 7}, 3};
  entry.actionId = 5;
  entry.memberId = 6;
  entry.memberHandle = 3;
  fill(entry.actionData, actionSize);
  return entry;
}

ActionProfileGroupCacheEntry group(size_t members) {
  ActionProfileGroupCacheEntry entry;
  entry.key = {{groupTableResource, 7}, 0x100000003};
  entry.groupId = 9;
  entry.groupHandle = 0x100000003;
  fill(entry.members, members);
  return entry;
}

// Round trip, size, and refusal of every cut and of a byte too many.
template <typename Record>
void expectSoundLayout(const Record& record, size_t size) {
  const Stored bytes = stored(record);
  ASSERT_EQ(bytes.size(), size);
  Record read;
  ASSERT_TRUE(read.deserialize(bytes.data(), bytes.size()));
  EXPECT_EQ(read, record);
  for (size_t length = 0; length<size; length += size> 5000 ? 13 : 1) {
    const Stored cut(bytes.begin(), bytes.begin() + length);  // so that a sanitizer sees an overrun
    EXPECT_FALSE(Record().deserialize(cut.data(), cut.size())) << length << " of " << size;
  }
  Stored longer = bytes;
  longer.push_back(0);
  EXPECT_FALSE(Record().deserialize(longer.data(), longer.size()));
}

TEST(CacheRecords, OccupyOnlyWhatTheyUse) {
  expectSoundLayout(tableEntry(0, 0), 56);
  expectSoundLayout(tableEntry(4, 6), 66);
  expectSoundLayout(tableEntry(2048, 2048), TableCacheEntry::largestSize);
  expectSoundLayout(member(0), 36);
  expectSoundLayout(member(2048), ActionProfileMemberCacheEntry::largestSize);
  expectSoundLayout(group(0), 32);
  expectSoundLayout(group(2), 48);
  expectSoundLayout(group(2048), ActionProfileGroupCacheEntry::largestSize);
}

// Records outlive the program that wrote them.
TEST(CacheRecords, KeepTheirLayout) {
  TableCacheEntry entry = tableEntry(0, 0);
  entry.matchKeyDataIs(1, 0xab);  // the element before it becomes 0
  entry.actionDataIs(0, 0xcd);
  const std::string golden = bytes(
      "02000000 01000002 08070605 04030201"  // rid, entryHandle
      "02000000 feffffff 01 000000 18171615 14131211"
      "02000001 28272625 24232221"
      "02000000 00ab 01000000 cd");
  EXPECT_EQ(stored(entry), Stored(golden.begin(), golden.end()));
  const std::string goldenGroup = bytes(
      "03000000 07000000 03000000 01000000 09000000 03000000 01000000"
      "01000000 0100000000000000");
  EXPECT_EQ(stored(group(1)), Stored(goldenGroup.begin(), goldenGroup.end()));
  const std::string goldenMember =
      bytes("04000000 07000000 03000000 00000000 05000000 06000000 0300000000000000 01000000 01");
  EXPECT_EQ(stored(member(1)), Stored(goldenMember.begin(), goldenMember.end()));
}

TEST(CacheRecords, OfUnknownStateOrTypeAreRefused) {
  const struct {
    const char* what;
    size_t at;
    uint8_t value;
  } cases[] = {{"state 3", 16, 3},
               {"state 256", 17, 1},
               {"entry type 0", 24, 0},
               {"entry type 3", 24, 3},
               {"a count of 2049", 49, 8}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Stored bytes = stored(tableEntry(1, 0));
    bytes[c.at] = c.value;
    EXPECT_FALSE(TableCacheEntry().deserialize(bytes.data(), bytes.size()));
  }
}

TEST(CacheRecords, ReserveTheLargestSizeForAcceptableCounts) {
  const auto reserved = [](Stored bytes, size_t at, uint32_t count) {
    std::memcpy(bytes.data() + at, &count, sizeof count);
    return TableCacheEntry::deserializeLen(bytes.data(), bytes.size());
  };
  const Stored entry = stored(tableEntry(8, 8));
  EXPECT_EQ(TableCacheEntry::deserializeLen(entry.data(), entry.size()), 0u)
      << "bytes 4 to 8 of the key stand where the second count is looked for";
  EXPECT_EQ(reserved(entry, 48 + 8, 2048), 4152u);
  EXPECT_EQ(reserved(entry, 48 + 8, 2049), 0u);
  Stored acceptable = entry;
  for (size_t i = 56; i < 60; ++i) acceptable.at(i) = 0;
  EXPECT_EQ(reserved(acceptable, 48, 2049), 0u);
  EXPECT_EQ(reserved(acceptable, 60, 2049), 4152u) << "the real second count is not looked at";
  EXPECT_EQ(TableCacheEntry::deserializeLen(acceptable.data(), 51), 0u);
  EXPECT_EQ(TableCacheEntry::deserializeLen(acceptable.data(), 59), 0u);

  Stored oneMember = stored(member(1));
  EXPECT_EQ(ActionProfileMemberCacheEntry::deserializeLen(oneMember.data(), oneMember.size()),
            2084u);
  oneMember[33] = 0x10;
  EXPECT_EQ(ActionProfileMemberCacheEntry::deserializeLen(oneMember.data(), oneMember.size()), 0u);
  const Stored oneGroup = stored(group(1));
  EXPECT_EQ(ActionProfileGroupCacheEntry::deserializeLen(oneGroup.data(), oneGroup.size()), 16416u);
  EXPECT_EQ(ActionProfileGroupCacheEntry::deserializeLen(oneGroup.data(), 31), 0u);
}

TEST(CachePodArrayIndex, EndsAt2047) {
  TableCacheEntry entry;
  entry.actionDataIs(2047, 1);
  EXPECT_EQ(entry.actionData.size(), 2048u);
  EXPECT_THROW(entry.actionDataIs(2048, 1), std::range_error);
  CachePodArrayIndex index(2046);
  EXPECT_EQ((index += 1).value(), 2047u);
  EXPECT_THROW(index + 1, std::range_error);
  EXPECT_THROW(index + 0xffffffffu, std::range_error);
  EXPECT_EQ(index.value(), 2047u);
  entry.actionDataDelAll();
  entry.actionDataDel(0);  // nothing there
  EXPECT_EQ(entry.actionData.size(), 0u);
  std::vector<uint8_t> tooMany(2049);
  EXPECT_THROW(entry.matchKeyData.elementsAre(tooMany), std::range_error);
}

TEST(CacheKey, OrdersByResourceThenByUnsignedHandle) {
  const CacheKey ascending[] = {{{2, 1}, UINT64_MAX},         {{2, 2}, 0},
                                {{2, 2}, 0xffffffff},         {{2, 2}, 0x100000000},
                                {{2, 2}, 0x8000000000000000}, {{3, 0}, 0}};
  for (size_t i = 0; i + 1 < std::size(ascending); ++i) {
    SCOPED_TRACE(i);
    EXPECT_LT(ascending[i], ascending[i + 1]);
    EXPECT_LT(storedKey(ascending[i]), storedKey(ascending[i + 1]));  // as the store sorts
  }
}

TEST(CacheRecords, AreBuiltFromPiRecords) {
  std::string key = "key";
  std::string data = "data";
  const pi_match_key_t matchKey{nullptr, 1, 77, key.size(), key.data()};
  pi_action_data_t action{nullptr, 5, data.size(), data.data()};
  pi_table_entry_t entry{};
  entry.entry_type = PI_ACTION_ENTRY_TYPE_DATA;
  entry.entry.action_data = &action;
  TableCacheEntry direct = tableEntry(1, 1);
  direct.cloneTableEntry(matchKey, entry);
  EXPECT_EQ(direct.matchKeyPriority, 77);
  EXPECT_EQ(direct.actionId, 5u);
  EXPECT_EQ(std::string(direct.actionData.begin(), direct.actionData.end()), data);
  EXPECT_EQ(direct.entryState, EntryState::pendingToBeAdded);
  EXPECT_EQ(direct.controllerMetadata, 0x2122232425262728u) << "the caller's to set";

  entry.entry_type = PI_ACTION_ENTRY_TYPE_INDIRECT;
  entry.entry.indirect_handle = 0x100000004;
  TableCacheEntry indirect;
  indirect.cloneTableEntry(matchKey, entry);
  EXPECT_EQ(indirect.entryType, TableCacheEntry::indirectEntry);
  EXPECT_EQ(indirect.indirectHandle, 0x100000004u);
  EXPECT_EQ(indirect.actionData.size(), 0u);

  std::string tooLong(2049, 'x');
  const pi_match_key_t longKey{nullptr, 1, 0, tooLong.size(), tooLong.data()};
  EXPECT_THROW(indirect.cloneTableEntry(longKey, entry), std::range_error);
  EXPECT_THROW(TableCacheEntry("text"), Vela::Exception);
}

}  // namespace
}  // namespace P4Runtime
