// Files that are not, or no longer, a store of ours: refused with a word, or opened with the
// damaged records named; never a crash, and no wrong record is served.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <random>

#include "platform/brine/Layout.h"
#include "platform/brine/Reader.h"
#include "platform/brine/StoreFile.h"
#include "tests/support/TempDir.h"

namespace Brine {
namespace {

using TestSupport::TempDir;
using Contents = std::map<std::string, std::string>;

struct DamageTest : testing::Test {
  TempDir directory;
  std::string file = dataPath(directory.path());
  Contents stored, storedFormerly;
  std::string former, whole;  // the file's bytes: of another commit, and of the last
  uint64_t followed = 0;      // of the former commit
  std::mt19937_64 random{11};

  std::unique_ptr<Store> open() const {
    return Store::open({.directory = directory.path(), .changes = 64});
  }
  std::string bytes() const {
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }
  void write(const std::string& bytes) const { std::ofstream(file, std::ios::binary) << bytes; }

  // Two commits, the later of which has changed, added and deleted some records of the former.
  void fill() {
    auto store = open();
    const auto rows = store->table("rows");
    const auto put = [&](const std::string& key, size_t size) {
      stored[key] = std::string(size, static_cast<char>('a' + stored.size() % 26));
      store->put(rows, asBytes(key), asBytes(stored[key]));
    };
    for (int i = 0; i < 300; ++i) put(std::to_string(i * 7919), static_cast<size_t>(i) % 80);
    for (int i = 0; i < 10; ++i) put(std::string(600, 'k') + std::to_string(i), 4);
    put("large", 20000);
    commit(*store);
    former = bytes();
    storedFormerly = stored;
    followed = store->committedSequence();
    for (int i = 0; i < 40; ++i) put(std::to_string(i * 7 * 7919), 30);
    for (int i = 0; i < 3; ++i) {
      store->erase(rows, asBytes(stored.begin()->first));
      stored.erase(stored.begin());
    }
    store->commit();
    whole = bytes();
  }
  void putAll(Store& store) const {
    const auto rows = store.table("rows");
    for (const auto& [key, value] : stored) store.put(rows, asBytes(key), asBytes(value));
    commit(store);
  }
  static void commit(Store& store) {
    store.commit();
    store.settle();
    store.trim(store.nextSequence(), 0);
  }
  size_t anywhere(size_t length = 1) { return random() % (whole.size() - length); }
  size_t anyPage() {
    return pageSize + anywhere() / pageSize * pageSize % (whole.size() - pageSize);
  }

  // Whether the contents are all of the stored ones but those named as damaged.
  size_t expectContents(const Contents& seen, size_t named) {
    for (const auto& [key, value] : seen) {
      const auto found = stored.find(key);
      EXPECT_TRUE(found != stored.end() && found->second == value) << key;
    }
    EXPECT_GE(seen.size() + named, stored.size()) << "records are missing in silence";
    return stored.size() - seen.size();
  }
  // Returns whether the writer told of damage.
  bool expectDamageIsTold(bool mayReadersMissRecords);
  void expectFollowed(Reader& reader);
  void expectUsable();
};

Contents contentsOf(Store& store) {
  Contents seen;
  store.forEach(store.table("rows"), [&](Bytes key, Bytes value) {
    EXPECT_TRUE(seen.emplace(asText(key), asText(value)).second) << "twice: " << asText(key);
    return true;
  });
  return seen;
}

bool DamageTest::expectDamageIsTold(bool mayReadersMissRecords) {
  try {
    const auto reader = Reader::open(directory.path());
    const auto snapshot = reader->snapshot();
    Contents seen;
    snapshot->forEach("rows", [&](Bytes key, Bytes value) {
      return seen.emplace(asText(key), asText(value)).second;
    });
    if (!mayReadersMissRecords) {
      expectContents(seen, snapshot->damagedRecords().size());
      expectFollowed(*reader);
    }
  } catch (const StoreError& error) {
    EXPECT_TRUE(isLoss(error.trouble)) << error.what();
  }
  try {
    const auto store = open();
    const auto damaged = store->takeDamagedRecords();
    const size_t missing = expectContents(contentsOf(*store), damaged.size());
    EXPECT_EQ(store->takeDamagedRecords().size(), 0u) << "each is told once";
    for (const auto& [key, value] : stored) {
      const auto found = store->get(store->table("rows"), asBytes(key));
      EXPECT_TRUE(!found || asText(*found) == value) << key;
    }
    if (random() % 2 == 0) {
      putAll(*store);  // as good as erasing, for records whose keys can be read
    } else {
      store->eraseDamaged(damaged);
      EXPECT_EQ(store->count(store->table("rows")), stored.size() - missing);
    }
    return !damaged.empty();
  } catch (const StoreError& error) {
    EXPECT_TRUE(isLoss(error.trouble)) << error.what();
    EXPECT_NE(std::string(error.what()).find(directory.path()), std::string::npos);
    Store::rebuild({.directory = directory.path(), .changes = 64});
    std::filesystem::remove_all(directory.path() + ".damaged-1");
    return true;
  }
}

// A follower from the former commit on either comes to the contents, or is told that changes are
// lost.
void DamageTest::expectFollowed(Reader& reader) {
  Contents now = storedFormerly;
  const auto reached = reader.followEach(followed, UINT64_MAX, [&](const FollowedChange& change) {
    now.erase(std::string(asText(change.key)));
    if (!change.deleted) now.emplace(asText(change.key), asText(change.value));
  });
  EXPECT_TRUE(!reached || now == stored);
}

void DamageTest::expectUsable() {
  for (const bool isReopened : {false, true}) {
    const auto store = open();
    const auto damaged = store->takeDamagedRecords();
    EXPECT_TRUE(!isReopened || damaged.empty());
    store->eraseDamaged(damaged);
    EXPECT_TRUE(!isReopened || contentsOf(*store) == stored);
    putAll(*store);
    EXPECT_EQ(contentsOf(*store), stored);
  }
}

TEST_F(DamageTest, IsToldOrHurtsNothing) {
  fill();
  const struct {
    const char* what;
    int rounds;
    int leastTold;
    std::function<void(std::string&)> hurt;
    bool mayReadersMissRecords = false;  // the writer alone counts them
  } cases[] = {
      {"none", 1, 0, [](auto&) {}},
      {"a bit flips", 1500, 500,
       [&](auto& b) { b[anywhere()] ^= static_cast<char>(1 << random() % 8); }},
      {"a word flips in the heads of pages", 300, 100,
       [&](auto& b) {
         const size_t at = anyPage() + random() % 16 * 8;
         for (int i = 0; i < 8; ++i) b[at + i] = static_cast<char>(random());
       },
       true},
      {"a few bytes change", 300, 100,
       [&](auto& b) {
         const size_t length = 1 + random() % 40, at = anywhere(length);
         for (size_t i = 0; i < length; ++i) b[at + i] = static_cast<char>(random());
       },
       true},
      {"a page is zero", 100, 60, [&](auto& b) { b.replace(anyPage(), pageSize, pageSize, '\0'); },
       true},
      {"a page is a former one", 100, 15,
       [&](auto& b) {
         const size_t at = anyPage();
         if (at + pageSize <= former.size()) b.replace(at, pageSize, former, at, pageSize);
       },
       true},
      {"a page is another one", 100, 60,
       [&](auto& b) { b.replace(anyPage(), pageSize, whole, anyPage(), pageSize); }, true},
      {"the file is cut off", 100, 100, [&](auto& b) { b.resize(anywhere()); }},
  };
  for (const auto& one : cases) {
    SCOPED_TRACE(one.what);
    int told = 0;
    for (int round = 0; round < one.rounds && !HasFailure(); ++round) {
      SCOPED_TRACE(round);
      std::string bytes = whole;
      one.hurt(bytes);
      write(bytes);
      told += expectDamageIsTold(one.mayReadersMissRecords);
      expectUsable();
    }
    EXPECT_GE(told, one.leastTold);
  }
}

TEST_F(DamageTest, ForeignFilesAreRefusedAndRebuildMovesThemAside) {
  fill();
  std::string other = whole;
  other[offsetof(FileHead, version)] = 99;
  const struct {
    std::string bytes;
    Trouble trouble;
  } cases[] = {{"", Trouble::damaged},
               {"x", Trouble::damaged},
               {std::string(50000, '\0'), Trouble::damaged},
               {std::string(50000, 'x'), Trouble::damaged},
               {other, Trouble::wrongVersion}};
  int number = 0;
  for (const auto& one : cases) {
    SCOPED_TRACE(one.bytes.size());
    write(one.bytes);
    try {
      open();
      ADD_FAILURE() << "opened";
    } catch (const StoreError& error) {
      EXPECT_EQ(error.trouble, one.trouble) << error.what();
    }
    EXPECT_EQ(bytes(), one.bytes) << "untouched";
    EXPECT_THROW(Reader::open(directory.path()), StoreError);
    const auto store = Store::rebuild({.directory = directory.path()});
    EXPECT_EQ(store->tableNames(), std::vector<std::string>{});
    const std::string aside = directory.path() + ".damaged-" + std::to_string(++number);
    EXPECT_EQ(std::filesystem::file_size(aside + "/brine.store"), one.bytes.size());
  }
  for (; number > 0; --number) {
    std::filesystem::remove_all(directory.path() + ".damaged-" + std::to_string(number));
  }
}

}  // namespace
}  // namespace Brine
