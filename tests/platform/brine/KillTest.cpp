// A writer killed at any instant leaves the state of one of its commits. The test program runs
// itself as the writer, and as a reader for another test.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <random>

#include "platform/brine/Store.h"
#include "tests/support/TempDir.h"

namespace Brine {

int audit(const std::string& directory, int looks);

namespace {

using TestSupport::TempDir;

// Each round r writes, in one commit: the number of the round, a row and a cache record with equal
// contents under random keys, and now and then erases some.
[[noreturn]] void writeForEver(const std::string& directory, int ready) {
  auto store = Store::open({.directory = directory});
  const auto rows = store->table("rows"), caches = store->table("caches"),
             meta = store->table("meta");
  const auto at = store->get(meta, asBytes("round"));
  uint64_t round = at ? std::stoull(std::string(asText(*at))) : 0;
  std::mt19937_64 random(round);
  for (;; ++round) {
    for (int i = 0; i < 50; ++i) {
      const std::string key = std::to_string(random() % 5000);
      const std::string value(random() % 120, static_cast<char>('a' + random() % 26));
      const bool erased = random() % 3 == 0;
      for (const auto table : {rows, caches}) {
        if (erased) {
          store->erase(table, asBytes(key));
        } else {
          store->put(table, asBytes(key), asBytes(value));
        }
      }
    }
    store->put(meta, asBytes("round"), asBytes(std::to_string(round + 1)));
    store->put(meta, asBytes("rows"), asBytes(std::to_string(store->count(rows))));
    store->commit();
    if (round % 8 == 0 && write(ready, "c", 1) != 1) _exit(1);
  }
}

std::map<std::string, std::string> contents(Store& store, TableNumber table) {
  std::map<std::string, std::string> all;
  store.forEach(
      table, [&](Bytes key, Bytes value) { return all.emplace(asText(key), asText(value)), true; });
  return all;
}

TEST(KillTest, LeavesTheStateOfOneCommit) {
  const TempDir directory;
  std::mt19937 random(4);
  uint64_t lastRound = 0;
  for (int kills = 0; kills < 60; ++kills) {
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t child = fork();
    if (child == 0) {
      execl("/proc/self/exe", "brine_test", "--write", directory.path().c_str(),
            std::to_string(ready[1]).c_str(), nullptr);
      _exit(1);
    }
    close(ready[1]);
    // So many bytes later, plus a moment that the scheduler picks, it dies.
    char byte = 0;
    for (unsigned i = random() % 12 + 1; i > 0; --i) ASSERT_EQ(read(ready[0], &byte, 1), 1);
    for (unsigned i = random() % 3000; i > 0; --i) getppid();
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    close(ready[0]);

    const auto store = Store::open({.directory = directory.path()});  // the lock went with it
    const auto rows = contents(*store, store->table("rows"));
    EXPECT_EQ(rows, contents(*store, store->table("caches")));
    const auto meta = contents(*store, store->table("meta"));
    EXPECT_EQ(std::to_string(rows.size()), meta.at("rows"));
    EXPECT_GE(std::stoull(meta.at("round")), lastRound) << "a commit that was seen is lost";
    lastRound = std::stoull(meta.at("round"));
  }
  EXPECT_GT(lastRound, 60u);
}

}  // namespace
}  // namespace Brine

int main(int argc, char** argv) {
  const auto is = [&](int at, const char* text) {
    return argc > at && std::string(argv[at]) == text;
  };
  if (is(1, "--write")) Brine::writeForEver(argv[2], std::stoi(argv[3]));
  if (is(1, "--audit")) return Brine::audit(argv[2], std::stoi(argv[3]));
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
