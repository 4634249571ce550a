// The writer's promises: read-your-writes, counts, commit and discard, keys of any length, and want
// of room.
#include "platform/brine/Store.h"

#include <gtest/gtest.h>
#include <sys/mount.h>

#include <filesystem>
#include <map>
#include <random>
#include <stdexcept>

#include "platform/brine/Records.h"
#include "tests/support/TempDir.h"

namespace Brine {
namespace {

using TestSupport::TempDir;

std::string textAt(Store& store, TableNumber table, const std::string& key) {
  const auto found = store.get(table, asBytes(key));
  return found ? std::string(asText(*found)) : "(none)";
}

void putText(Store& store, TableNumber table, const std::string& key, const std::string& value) {
  store.put(table, asBytes(key), asBytes(value));
}

std::map<std::string, std::string> contents(Store& store, TableNumber table) {
  std::map<std::string, std::string> all;
  std::string last;
  store.forEach(table, [&](Bytes key, Bytes value) {
    EXPECT_LT(last, asText(key)) << "keys ascend";
    last = asText(key);
    all[last] = asText(value);
    return true;
  });
  return all;
}

struct StoreTest : testing::Test {
  TempDir directory;
  std::unique_ptr<Store> store = Store::open({.directory = directory.path()});
  TableNumber table = store->table("rows");
  void reopen() {
    store.reset();
    store = Store::open({.directory = directory.path()});
    table = store->table("rows");
  }
};

// Random writes, in several tables, with commits and discards among them, against plain maps.
TEST_F(StoreTest, BehavesLikeMapsOfWhichTheCommittedOnesLast) {
  std::mt19937 random(20);
  const auto pick = [&](unsigned below) { return random() % below; };
  // Some keys are longer than LMDB takes, and several of those share their first 500 bytes.
  const auto key = [&] {
    const std::string text = std::to_string(pick(40));
    return pick(4) == 0 ? std::string(500 + pick(3) * 770, 'k') + text : text;
  };
  using Map = std::map<std::string, std::string>;
  Map seen[2], kept[2];
  TableNumber tables[2] = {table, store->table("caches")};
  for (int step = 0; step < 20000; ++step) {
    const unsigned which = pick(2);
    const std::string at = key();
    switch (pick(12)) {
      default: {
        const std::string value(pick(300), static_cast<char>('a' + pick(26)));
        putText(*store, tables[which], at, value);
        seen[which][at] = value;
        break;
      }
      case 6:
      case 7:
      case 8:
        EXPECT_EQ(store->erase(tables[which], asBytes(at)), seen[which].erase(at) == 1);
        break;
      case 9:
        if (pick(30) == 0) {
          store->eraseAll(tables[which]);
          seen[which].clear();
        }
        break;
      case 10:
        if (pick(5) != 0) break;
        store->commit();
        for (int i : {0, 1}) kept[i] = seen[i];
        break;
      case 11:
        if (pick(20) != 0) break;
        store->discard();
        for (int i : {0, 1}) seen[i] = kept[i];
        break;
    }
    const auto expected = seen[which].find(at);
    ASSERT_EQ(textAt(*store, tables[which], at),
              expected == seen[which].end() ? "(none)" : expected->second);
    if (pick(3) == 0) {
      ASSERT_EQ(store->count(tables[which]), seen[which].size());
    }
    if (step % 500 == 0) {
      for (int i : {0, 1}) ASSERT_EQ(contents(*store, tables[i]), kept[i]);
    }
  }
  reopen();
  EXPECT_EQ(contents(*store, table), kept[0]);
}

TEST_F(StoreTest, ForEachBeginsWhereItIsTold) {
  const std::string longKey(600, 'm');
  for (const auto& key :
       {std::string("a"), std::string("m"), longKey + "1", longKey + "2", std::string("z")}) {
    putText(*store, table, key, key);
  }
  store->commit();
  const struct {
    std::string from;
    size_t count;
  } cases[] = {{"", 5}, {"a", 5}, {"b", 4}, {longKey, 3}, {longKey + "2", 2}, {"z", 1}, {"zz", 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.from);
    size_t count = 0;
    store->forEach(
        table, [&](Bytes, Bytes) { return ++count, true; }, asBytes(c.from));
    EXPECT_EQ(count, c.count);
  }
}

TEST_F(StoreTest, LongKeysOfOneHashAreKeptApart) {
  longKeyHashIs(42);
  std::map<std::string, std::string> expected;
  for (int i = 0; i < 20; ++i) {
    const std::string key = std::string(700, 'x') + std::to_string(i);
    putText(*store, table, key, std::to_string(i));
    expected[key] = std::to_string(i);
  }
  store->commit();
  for (int i : {0, 19, 7, 8}) {
    const std::string key = std::string(700, 'x') + std::to_string(i);
    EXPECT_TRUE(store->erase(table, asBytes(key)));
    expected.erase(key);
    store->commit();
    EXPECT_EQ(contents(*store, table), expected);
    EXPECT_EQ(textAt(*store, table, key), "(none)");
  }
  for (const auto& [key, value] : expected) EXPECT_EQ(textAt(*store, table, key), value);
  longKeyHashIs({});
}

TEST_F(StoreTest, RefusesKeysOutOfTheLimits) {
  EXPECT_THROW(putText(*store, table, "", "x"), std::invalid_argument);
  EXPECT_THROW(putText(*store, table, std::string(2049, 'x'), "x"), std::invalid_argument);
  putText(*store, table, std::string(2048, 'x'), std::string(100000, 'v'));
  store->commit();
  EXPECT_EQ(textAt(*store, table, std::string(2048, 'x')).size(), 100000u);
}

TEST_F(StoreTest, TablesComeGoAndComeBackEmpty) {
  putText(*store, table, "a", "1");
  store->commit();
  putText(*store, table, "b", "2");
  store->tableDel("rows");
  EXPECT_FALSE(store->hasTable("rows"));
  EXPECT_THROW(textAt(*store, table, "a"), std::logic_error);
  store->commit();  // with a write to a table that is gone
  table = store->table("rows");
  EXPECT_EQ(store->count(table), 0u);
  putText(*store, table, "c", "3");
  store->commit();
  reopen();
  EXPECT_EQ(contents(*store, table), (std::map<std::string, std::string>{{"c", "3"}}));
  EXPECT_EQ(store->tableNames(), std::vector<std::string>{"rows"});
}

TEST_F(StoreTest, HasOneWriter) {
  try {
    Store::open({.directory = directory.path()});
    FAIL() << "a second writer got in";
  } catch (const StoreError& error) {
    EXPECT_EQ(error.trouble, Trouble::busy);
    EXPECT_NE(std::string(error.what()).find(directory.path()), std::string::npos);
  }
}

// The memory of the state directory is used again: rewriting records for ever takes no more room.
TEST_F(StoreTest, RewritingTheSameRecordsTakesNoMoreRoom) {
  const auto round = [&] {
    for (int i = 0; i < 300; ++i) putText(*store, table, std::to_string(i), std::string(90, 'r'));
    store->commit();
    EXPECT_NE(textAt(*store, table, "7"), "(none)");  // a look between must not pin the pages
  };
  for (int i = 0; i < 10; ++i) round();
  const size_t used = store->bytesUsed();
  for (int i = 0; i < 200; ++i) round();
  EXPECT_EQ(store->bytesUsed(), used);
}

struct FullStoreTest : StoreTest {
  std::string small = directory.file("small");
  bool mounted = false;
  void SetUp() override {
    std::filesystem::create_directory(small);
    mounted = mount("korvel-test", small.c_str(), "tmpfs", 0, "size=4m") == 0;
    if (!mounted) GTEST_SKIP() << "mounting a small tmpfs needs root";
  }
  void TearDown() override {
    if (mounted) umount2(small.c_str(), MNT_DETACH);
  }
};

TEST_F(FullStoreTest, AFullDirectoryIsAnErrorAndTheFormerStateStands) {
  auto full = Store::open({.directory = small});
  const TableNumber rows = full->table("rows");
  int committed = 0;
  try {
    for (;; ++committed) {
      for (int i = 0; i < 100; ++i) {
        putText(*full, rows, std::to_string(committed * 100 + i), std::string(100, 'f'));
      }
      full->commit();
      ASSERT_LT(committed, 1000) << "four million bytes hold no ten million";
    }
  } catch (const StoreError& error) {
    EXPECT_EQ(error.trouble, Trouble::full) << error.what();
  }
  EXPECT_GT(committed, 60) << "most of the memory is put to use";
  EXPECT_FALSE(full->dirty());
  EXPECT_EQ(full->count(rows), committed * 100u);
  // Room made elsewhere lets it go on, and its records are sound.
  ASSERT_EQ(mount("korvel-test", small.c_str(), "tmpfs", MS_REMOUNT, "size=6m"), 0);
  putText(*full, rows, "more", "room");
  full->commit();
  full.reset();
  full = Store::open({.directory = small});
  EXPECT_EQ(full->count(full->table("rows")), committed * 100u + 1);
}

TEST_F(FullStoreTest, OpeningInAFullDirectoryIsAnError) {
  const std::string filler = small + "/filler";
  FILE* file = fopen(filler.c_str(), "w");
  const std::vector<char> bytes(4096);
  setvbuf(file, nullptr, _IONBF, 0);
  while (fwrite(bytes.data(), bytes.size(), 1, file) == 1) {
  }
  fclose(file);
  try {
    Store::open({.directory = small});
    FAIL() << "opened without room";
  } catch (const StoreError& error) {
    EXPECT_EQ(error.trouble, Trouble::full) << error.what();
  }
}

}  // namespace
}  // namespace Brine
