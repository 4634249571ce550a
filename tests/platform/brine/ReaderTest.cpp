// Snapshots: whole commits, and tables that come and go.
#include <gtest/gtest.h>

#include <cstring>

#include "platform/brine/Reader.h"
#include "tests/support/TempDir.h"

namespace Brine {
namespace {

using TestSupport::TempDir;

void putText(Store& store, TableNumber table, const std::string& key, const std::string& value) {
  store.put(table, asBytes(key), asBytes(value));
}

TEST(ReaderTest, SeesOneCommitAtATime) {
  const TempDir directory;
  auto store = Store::open({.directory = directory.path()});
  const auto rows = store->table("rows");
  auto reader = Reader::open(directory.path());
  putText(*store, rows, "a", "1");
  EXPECT_EQ(reader->snapshot()->count("rows"), 0u);
  store->commit();
  const auto snapshot = reader->snapshot();
  putText(*store, rows, "a", "2");
  putText(*store, store->table("later"), "b", "3");
  store->commit();
  EXPECT_EQ(asText(snapshot->get("rows", asBytes("a")).value()), "1");
  EXPECT_FALSE(snapshot->hasTable("later"));
}

TEST(ReaderTest, LeavesAttachmentsOutWhenAskedTo) {
  const TempDir directory;
  auto store = Store::open({.directory = directory.path()});
  const auto rows = store->table("rows");
  for (const std::string key : {"a", "b"}) {
    const auto written = store->write(rows, asBytes(key), 1, {.attachmentSize = 2, .owner = 7});
    std::memcpy(written.value.data(), "1", 1);
    std::memcpy(written.attachment.data(), "xy", 2);
  }
  store->commit();
  const auto reader = Reader::open(directory.path());
  const auto textsWith = [&](Reader::Attachments attachments) {
    std::string texts;
    reader->snapshot(nullptr, attachments)->forEachRecord("rows", [&](const Record& record) {
      for (const Bytes part : {record.key, record.value, record.attachment}) texts += asText(part);
      return true;
    });
    return texts;
  };
  EXPECT_EQ(textsWith(Reader::Attachments::copied), "a1xyb1xy");
  EXPECT_EQ(textsWith(Reader::Attachments::leftOut), "a1b1");
}

TEST(ReaderTest, FollowsTablesThatComeAndGo) {
  const TempDir directory;
  auto store = Store::open({.directory = directory.path()});
  auto reader = Reader::open(directory.path());
  for (int round = 0; round < 5; ++round) {
    putText(*store, store->table("rows"), "round", std::to_string(round));
    store->commit();
    EXPECT_EQ(asText(reader->snapshot()->get("rows", asBytes("round")).value()),
              std::to_string(round));
    store->tableDel("rows");
    EXPECT_EQ(reader->snapshot()->tableNames(), std::vector<std::string>{});
    EXPECT_EQ(reader->snapshot()->get("rows", asBytes("round")), std::nullopt);
  }
}

TEST(ReaderTest, IsMissingUntilThereIsAStore) {
  const TempDir directory;
  try {
    Reader::open(directory.path());
    FAIL() << "read a store that is not there";
  } catch (const StoreError& error) {
    EXPECT_EQ(error.trouble, Trouble::missing);
  }
}

}  // namespace
}  // namespace Brine
