// Files that are not, or no longer, a store of ours: refused with a word, never a crash, and moved
// aside when asked to.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <lmdb.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <random>

#include "platform/brine/Store.h"
#include "tests/support/TempDir.h"

namespace Brine {
namespace {

using TestSupport::TempDir;

struct DamageTest : testing::Test {
  TempDir directory;
  std::string file = directory.file("brine.mdb");

  // Answers the bytes that matter: the file itself is as long as the store may grow.
  size_t fill(int records) {
    auto store = Store::open({.directory = directory.path()});
    const auto rows = store->table("rows");
    for (int i = 0; i < records; ++i) {
      store->put(rows, asBytes(std::to_string(i * 7919)), asBytes(std::string(i % 50 * 60, 'x')));
      if (i % 100 == 99) store->commit();
    }
    return store->bytesUsed();
  }
  std::optional<Trouble> trouble() {
    try {
      auto store = Store::open({.directory = directory.path()});
      const auto rows = store->table("rows");
      store->forEach(rows, [](Bytes, Bytes) { return true; });
      for (int i = 0; i < 300; ++i) {
        store->put(rows, asBytes(std::to_string(i * 7919)), asBytes("again"));
      }
      store->commit();
      return std::nullopt;
    } catch (const StoreError& error) {
      EXPECT_NE(std::string(error.what()).find(directory.path()), std::string::npos);
      return error.trouble;
    }
  }
  void overwrite(off_t at, const std::string& bytes) const {
    const int opened = open(file.c_str(), O_WRONLY);
    EXPECT_EQ(pwrite(opened, bytes.data(), bytes.size(), at), static_cast<ssize_t>(bytes.size()));
    close(opened);
  }
  void write(const std::string& bytes) const { std::ofstream(file, std::ios::binary) << bytes; }
};

TEST_F(DamageTest, ForeignFilesAreRefusedAndRebuildMovesThemAside) {
  const std::string cases[] = {"x", std::string(100, 'x'), std::string(50000, '\0'),
                               std::string(50000, 'x')};
  int number = 0;
  for (const std::string& bytes : cases) {
    SCOPED_TRACE(bytes.size());
    write(bytes);
    EXPECT_EQ(trouble(), Trouble::damaged);
    auto store = Store::rebuild({.directory = directory.path()});
    EXPECT_EQ(store->tableNames(), std::vector<std::string>{});
    const std::string aside = directory.path() + ".damaged-" + std::to_string(++number);
    EXPECT_EQ(std::filesystem::file_size(aside + "/brine.mdb"), bytes.size());
  }
  for (; number > 0; --number) {
    std::filesystem::remove_all(directory.path() + ".damaged-" + std::to_string(number));
  }
}

TEST_F(DamageTest, AnotherProgramsEnvironmentIsNotTouched) {
  MDB_env* env = nullptr;
  mdb_env_create(&env);
  ASSERT_EQ(mdb_env_open(env, file.c_str(), MDB_NOSUBDIR, 0600), 0);
  MDB_txn* txn = nullptr;
  mdb_txn_begin(env, nullptr, 0, &txn);
  MDB_val key{1, const_cast<char*>("k")}, value = key;
  mdb_put(txn, 1, &key, &value, 0);
  mdb_txn_commit(txn);
  mdb_env_close(env);
  EXPECT_EQ(trouble(), Trouble::damaged);
}

TEST_F(DamageTest, AnotherLayoutVersionIsToldApart) {
  fill(10);
  MDB_env* env = nullptr;
  mdb_env_create(&env);
  mdb_env_set_maxdbs(env, 8);
  ASSERT_EQ(mdb_env_open(env, file.c_str(), MDB_NOSUBDIR, 0600), 0);
  MDB_txn* txn = nullptr;
  MDB_dbi dbi = 0;
  mdb_txn_begin(env, nullptr, 0, &txn);
  ASSERT_EQ(mdb_dbi_open(txn, "brine/meta", 0, &dbi), 0);
  uint32_t version = 99;
  MDB_val key{13, const_cast<char*>("layoutVersion")}, value{4, &version};
  mdb_put(txn, dbi, &key, &value, 0);
  mdb_txn_commit(txn);
  mdb_env_close(env);
  EXPECT_EQ(trouble(), Trouble::wrongVersion);
}

TEST_F(DamageTest, AFileCutShortIsDamaged) {
  for (const int part : {1, 2, 5, 9}) {
    std::filesystem::remove(file);
    fill(1000);
    std::filesystem::resize_file(file, 4096 * 3 * part);
    EXPECT_EQ(trouble(), Trouble::damaged) << part;
  }
}

// Any page may be overwritten with anything: the store is refused, or works on with its records
// (the bytes hit may be of a record, or of a free page).
TEST_F(DamageTest, NoDamagedPageIsACrash) {
  const size_t size = fill(2000);
  std::string whole(size, '\0');
  std::ifstream(file, std::ios::binary).read(whole.data(), static_cast<std::streamsize>(size));
  std::mt19937_64 random(11);
  int refused = 0;
  for (int round = 0; round < 400; ++round) {
    write(whole);
    const bool heads = round % 2 == 0;  // page heads and nodes, or anywhere
    for (int hits = 0; hits < 3; ++hits) {
      const uint64_t page = random() % (size / 4096) * 4096;
      std::string bytes(1 + random() % 8, '\0');
      for (char& c : bytes) c = static_cast<char>(random());
      overwrite(static_cast<off_t>(page + (heads ? random() % 64 : random() % 4080)), bytes);
    }
    const auto found = trouble();
    if (!found) continue;
    ++refused;
    EXPECT_EQ(*found, Trouble::damaged);
  }
  EXPECT_GT(refused, 100);
}

// A byte that flips inside a record was served as it was, or its record was passed over in silence.
TEST_F(DamageTest, AFlippedByteIsServedToNobodyAndItsRecordIsNamed) {
  std::map<std::string, std::string> stored;
  for (int i = 0; i < 600; ++i) stored[std::to_string(i * 7919)] = std::string(i % 80, 'v');
  for (int i = 0; i < 40; ++i) stored[std::string(600, 'k') + std::to_string(i)] = "long";
  stored["large"] = std::string(20000, 'l');
  {
    auto store = Store::open({.directory = directory.path()});
    const auto rows = store->table("rows");
    for (const auto& [key, value] : stored) store->put(rows, asBytes(key), asBytes(value));
    store->commit();
  }
  const size_t size = Store::open({.directory = directory.path()})->bytesUsed();
  std::string whole(size, '\0');
  std::ifstream(file, std::ios::binary).read(whole.data(), static_cast<std::streamsize>(size));

  size_t seen = 0;
  const auto visit = [&](Bytes key, Bytes value) {
    const auto found = stored.find(std::string(asText(key)));
    EXPECT_TRUE(found != stored.end() && found->second == asText(value)) << asText(key);
    ++seen;
    return true;
  };
  int named = 0, refused = 0;
  std::mt19937_64 random(18);
  for (int round = 0; round < 1000; ++round) {
    SCOPED_TRACE(round);
    std::string flipped = whole;
    flipped[random() % size] ^= static_cast<char>(1 << random() % 8);
    write(flipped);
    size_t damaged = 0;
    try {
      const auto reader = Reader::open(directory.path());
      const auto snapshot = reader->snapshot();
      seen = 0;
      damaged = snapshot->forEach("rows", visit);
      EXPECT_EQ(seen + damaged, stored.size());
      EXPECT_EQ(snapshot->damagedRecords().size(), damaged);
    } catch (const StoreError& error) {
      EXPECT_TRUE(isLoss(error.trouble)) << error.what();
      ++refused;
      continue;
    }
    try {
      const auto store = Store::open({.directory = directory.path()});
      const auto rows = store->table("rows");
      EXPECT_EQ(store->forEach(rows, visit), damaged);
      const auto records = store->takeDamagedRecords();
      EXPECT_EQ(records.size(), damaged);
      for (const auto& record : records) EXPECT_FALSE(store->get(rows, asBytes(record.key)));
      EXPECT_EQ(store->takeDamagedRecords().size(), 0u) << "each is told once";
      store->eraseDamaged(records);
      EXPECT_EQ(store->count(rows), stored.size() - damaged);
      EXPECT_EQ(store->forEach(rows, visit), 0u);
      named += damaged > 0;
    } catch (const StoreError& error) {  // the lists of free pages are the writer's alone
      EXPECT_TRUE(isLoss(error.trouble)) << error.what();
    }
  }
  EXPECT_GT(named, 300);
  EXPECT_GT(refused, 20);
}

}  // namespace
}  // namespace Brine
