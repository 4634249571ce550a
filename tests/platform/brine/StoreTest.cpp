// The writer's promises: read-your-writes, counts, commit and discard, keys of any length, and what
// happens when there is no room.
#include "platform/brine/Store.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <filesystem>
#include <map>
#include <stdexcept>

#include "platform/brine/Reader.h"
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
  store.forEach(table, [&](Bytes key, Bytes value) {
    EXPECT_TRUE(all.emplace(asText(key), asText(value)).second) << "a key comes twice";
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

TEST_F(StoreTest, RefusesKeysOutOfTheLimits) {
  EXPECT_THROW(putText(*store, table, "", "x"), std::invalid_argument);
  EXPECT_THROW(putText(*store, table, std::string(2049, 'x'), "x"), std::invalid_argument);
  EXPECT_THROW(store->write(table, asBytes("x"), UINT32_MAX, {}), std::invalid_argument);
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

// The memory of the state directory is used again: what is rewritten for ever does not grow.
TEST_F(StoreTest, RewritingTheSameRecordsTakesNoMoreRoom) {
  const auto round = [&] {
    for (int i = 0; i < 300; ++i) putText(*store, table, std::to_string(i), std::string(90, 'r'));
    store->commit();
    store->settle();
    store->trim(store->nextSequence(), 0);
  };
  for (int i = 0; i < 10; ++i) round();
  const size_t used = store->bytesUsed();
  for (int i = 0; i < 200; ++i) round();
  EXPECT_EQ(store->bytesUsed(), used);
}

// Or an undoing that comes too late would undo another's change.
TEST_F(StoreTest, TheNumberOfADiscardedChangeIsNeverAnothers) {
  putText(*store, table, "a", "1");
  store->commit();
  const auto write = [&](const std::string& value) {
    return store->write(table, asBytes("a"), value.size(), {.owner = 7}).sequence;
  };
  const uint64_t first = write("2");
  const uint64_t second = write("3");
  store->discard();
  putText(*store, table, "b", "1");
  putText(*store, table, "c", "1");
  store->commit();
  for (const uint64_t sequence : {first, second}) {
    EXPECT_FALSE(store->change(sequence));
    EXPECT_EQ(store->undo(sequence), 0u);
  }
  store->commit();
  EXPECT_EQ(contents(*store, table),
            (std::map<std::string, std::string>{{"a", "1"}, {"b", "1"}, {"c", "1"}}));
}

// Within the bounds of the file what one table has left serves another, whose records are larger.
TEST_F(StoreTest, TheRoomOfDeletedRecordsServesOthersOfAnotherSize) {
  store.reset();
  store = Store::open({.directory = directory.path(), .maxBytes = size_t{16} << 20});
  const auto fill = [&](TableNumber to, size_t size) {
    size_t bytes = 0;
    try {
      for (int i = 0;; ++i, bytes += size) {
        putText(*store, to, std::to_string(i), std::string(size, 'x'));
      }
    } catch (const StoreError& error) {
      EXPECT_EQ(error.trouble, Trouble::full);
    }
    store->commit();
    return bytes;
  };
  table = store->table("rows");
  const size_t small = fill(table, 100);
  store->eraseAll(table);
  store->commit();
  store->settle();
  EXPECT_GT(fill(store->table("others"), 3000), small / 2);
}

// A follower that lags behind looks into slots that are free by then: their memory must be there.
TEST_F(StoreTest, MemoryGoesBackToTheSystemWithTheNextOpening) {
  const auto memory = [this] {
    struct stat status {};
    EXPECT_EQ(stat((directory.path() + "/brine.store").c_str(), &status), 0);
    return static_cast<size_t>(status.st_blocks) * 512;
  };
  const auto fill = [this](const std::string& name) {
    table = store->table(name);
    for (int i = 0; i < 100000; ++i) {
      putText(*store, table, std::to_string(i), name + std::string(90, 'r'));
    }
    store->commit();
  };
  const auto empty = [this] {
    store->eraseAll(table);
    store->commit();
    store->settle();
    store->trim(store->nextSequence(), 0);
  };
  const size_t atFirst = memory();
  fill("rows");
  const size_t full = memory();
  const size_t taken = full - atFirst;
  EXPECT_GT(taken, 100000u * 100);
  empty();
  EXPECT_EQ(memory(), full) << "the store is open";
  fill("others");
  store->tableDel("others");
  fill("rows");
  EXPECT_LT(memory(), full + taken / 2) << "all tables share what is free";
  EXPECT_EQ(store->bytesUsed() / 4096, memory() / 4096);
  empty();
  reopen();
  EXPECT_LT(memory(), atFirst + taken / 10);
  EXPECT_EQ(store->bytesUsed() / 4096, memory() / 4096);
  fill("rows");
  reopen();
  EXPECT_EQ(textAt(*store, table, "99999"), "rows" + std::string(90, 'r'));
  EXPECT_EQ(store->count(table), 100000u);
}

struct FullStoreTest : StoreTest {
  std::string small = directory.file("small");
  bool mounted = false;
  void SetUp() override {
    std::filesystem::create_directory(small);
    mounted = mount("korvel-test", small.c_str(), "tmpfs", 0, "size=6m") == 0;
    if (!mounted) GTEST_SKIP() << "mounting a small tmpfs needs root";
  }
  void fillUp() const {
    FILE* file = fopen((small + "/filler").c_str(), "w");
    const std::vector<char> bytes(4096);
    setvbuf(file, nullptr, _IONBF, 0);
    while (fwrite(bytes.data(), bytes.size(), 1, file) == 1) {
    }
    fclose(file);
  }
  void TearDown() override {
    if (mounted) umount2(small.c_str(), MNT_DETACH);
  }
};

TEST_F(FullStoreTest, AFullDirectoryRefusesNewRecordsAndTakesAllElse) {
  auto full = Store::open({.directory = small});
  const TableNumber rows = full->table("rows");
  int written = 0;
  try {
    for (;; ++written) {
      putText(*full, rows, std::to_string(written), std::string(100, 'f'));
      ASSERT_LT(written, 100000) << "six million bytes hold no ten million";
    }
  } catch (const StoreError& error) {
    EXPECT_EQ(error.trouble, Trouble::full) << error.what();
  }
  EXPECT_GT(written, 8000) << "most of the memory is put to use";
  full->commit();
  full->settle();
  EXPECT_EQ(full->count(rows), static_cast<size_t>(written));
  // Deleting, and undoing that, need no room.
  uint64_t first = full->nextSequence();
  for (int i = 0; i < 1000; ++i) full->eraseFor(rows, asBytes(std::to_string(i)), 0);
  full->commit();
  for (int i = 0; i < 1000; ++i) full->undo(first++);
  full->commit();
  EXPECT_EQ(textAt(*full, rows, "7"), std::string(100, 'f'));
  // Room made elsewhere lets it go on, and what it holds is sound.
  ASSERT_EQ(mount("korvel-test", small.c_str(), "tmpfs", MS_REMOUNT, "size=8m"), 0);
  putText(*full, rows, "more", "room");
  full->commit();
  full.reset();
  full = Store::open({.directory = small});
  EXPECT_EQ(full->count(full->table("rows")), written + size_t{1});
}

// Versions that only late followers would ask for take no room from a write.
TEST_F(FullStoreTest, FormerVersionsGoWhenARecordFindsNoRoom) {
  auto full = Store::open({.directory = small});
  const TableNumber rows = full->table("rows");
  const auto putMany = [&](const std::string& prefix) {
    int written = 0;
    try {
      for (;; ++written) putText(*full, rows, prefix + std::to_string(written), "value");
    } catch (const StoreError&) {  // no room for more
    }
    full->commit();
    return written;
  };
  const int most = putMany("a");
  for (int i = 0; i < most; ++i) full->erase(rows, asBytes("a" + std::to_string(i)));
  full->commit();
  EXPECT_EQ(putMany("b"), 0) << "the outcome of the deletions is not known yet";
  full->settle();
  EXPECT_GT(putMany("c"), most / 2);
  EXPECT_GT(full->trimmedUpTo(), static_cast<uint64_t>(most)) << "followers take a snapshot";
}

// Its slots serve other tables, and their memory is given back with the next opening: a look at
// former versions would take some again, and end the process where there is none.
TEST_F(FullStoreTest, NothingIsLookedForInTheMemoryOfADeletedTable) {
  auto full = Store::open({.directory = small});
  const TableNumber rows = full->table("rows");
  const uint64_t first = full->nextSequence();
  for (int i = 0; i < 4000; ++i) putText(*full, rows, std::to_string(i % 2000), "value");
  full->commit();
  const auto reader = Reader::open(small);
  full->tableDel("rows");
  const auto isOfRows = [&](const FollowedChange& change) { EXPECT_NE(change.table, rows); };
  EXPECT_EQ(reader->followEach(first, UINT64_MAX, isOfRows), full->committedSequence());
  for (uint64_t at = first; at < full->nextSequence(); ++at) {
    const auto change = full->change(at);
    EXPECT_TRUE(!change || change->table != rows);
    full->undo(at);
  }
  full.reset();
  full = Store::open({.directory = small});
  fillUp();
  EXPECT_EQ(reader->followEach(first, UINT64_MAX, isOfRows), full->committedSequence());
  full->settle();
  full->trim(full->nextSequence(), 0);
}

TEST_F(FullStoreTest, OpeningInAFullDirectoryIsAnError) {
  fillUp();
  try {
    Store::open({.directory = small});
    FAIL() << "opened without room";
  } catch (const StoreError& error) {
    EXPECT_EQ(error.trouble, Trouble::full) << error.what();
  }
}

}  // namespace
}  // namespace Brine
