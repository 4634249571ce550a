#include "P4Runtime/table/records/CacheRecords.h"

#include <gtest/gtest.h>

#include <string>

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

}  // namespace
}  // namespace P4Runtime
