// Snapshots: whole commits, tables that come later, and readers of other processes.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "platform/brine/Store.h"
#include "tests/support/TempDir.h"

namespace Brine {
namespace {

using TestSupport::TempDir;

void putText(Store& store, TableNumber table, const std::string& key, const std::string& value) {
  store.put(table, asBytes(key), asBytes(value));
}

void killReaderInMidSnapshot(const std::string& directory) {
  int ready[2], hold[2];
  ASSERT_EQ(pipe(ready), 0);
  ASSERT_EQ(pipe(hold), 0);
  const pid_t child = fork();
  if (child == 0) {
    execl("/proc/self/exe", "brine_test", "--hold", directory.c_str(),
          std::to_string(ready[1]).c_str(), std::to_string(hold[0]).c_str(), nullptr);
    _exit(1);
  }
  close(ready[1]);
  char byte = 0;
  EXPECT_EQ(read(ready[0], &byte, 1), 1);
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  for (const int end : {ready[0], hold[0], hold[1]}) close(end);
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

// Readers in another process, and killed there, neither tear a commit nor keep its pages for ever.
TEST(ReaderTest, OfAnotherProcessSeesWholeCommitsAndMayDie) {
  const TempDir directory;
  auto store = Store::open({.directory = directory.path()});
  const auto rows = store->table("rows"), caches = store->table("caches");
  putText(*store, rows, "n", "0");
  putText(*store, caches, "n", "0");
  store->commit();
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t child = fork();
  if (child == 0) {
    // The parent's environment must not be used here: a program of its own would not have it.
    execl("/proc/self/exe", "brine_test", "--read", directory.path().c_str(),
          std::to_string(ready[1]).c_str(), nullptr);
    _exit(1);
  }
  close(ready[1]);
  char seen = 0;
  int number = 0;
  ASSERT_EQ(read(ready[0], &seen, 1), 1) << "the reader has its first snapshot";
  for (; number < 2000; ++number) {
    for (const auto table : {rows, caches}) putText(*store, table, "n", std::to_string(number));
    store->commit();
  }
  putText(*store, rows, "end", "");
  store->commit();
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFSIGNALED(status)) << "it found a torn commit: " << WEXITSTATUS(status);
  for (int i = 0; i < 600; ++i) {
    putText(*store, rows, "n", std::to_string(number++));
    store->commit();
  }
  const size_t used = store->bytesUsed();
  for (int i = 0; i < 300; ++i) {
    putText(*store, rows, "n", std::to_string(number++));
    store->commit();
  }
  EXPECT_EQ(store->bytesUsed(), used);
  close(ready[0]);
}

// A reader that was killed in mid-snapshot held its pages for good once the store was full: the
// check for such readers came with successful commits only.
TEST(ReaderTest, KilledInMidSnapshotDoesNotFillTheStore) {
  const TempDir directory;
  const std::string small = directory.file("small");
  std::filesystem::create_directory(small);
  const bool mounted = mount("korvel-test", small.c_str(), "tmpfs", 0, "size=3m,mode=0700") == 0;
  const struct {
    const char* what;
    StoreOptions options;
    bool possible;
  } cases[] = {{"a small map", {.directory = directory.file("map"), .maxBytes = 2 << 20}, true},
               {"a small directory", {.directory = small}, mounted}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    if (!c.possible) continue;  // mounting needs root
    auto store = Store::open(c.options);
    const auto rows = store->table("rows");
    int failures = 0;
    for (int i = 0; i < 2000; ++i) {
      if (i % 200 == 0) killReaderInMidSnapshot(c.options.directory);
      for (int row = 0; row < 20; ++row) {
        putText(*store, rows, std::to_string(row * 37), std::string(400, 'a' + i % 26));
      }
      try {
        store->commit();
      } catch (const StoreError&) {
        ++failures;
      }
    }
    EXPECT_EQ(failures, 0);
  }
  if (mounted) umount2(small.c_str(), MNT_DETACH);
}

}  // namespace

// The child of the test of whole commits: compares two tables until the end is written, then dies
// holding a snapshot.
int readUntilEnd(const std::string& directory, int ready) {
  auto reader = Reader::open(directory);
  for (bool first = true;; first = false) {
    const auto snapshot = reader->snapshot();
    const auto row = snapshot->get("rows", asBytes("n"));
    const auto cache = snapshot->get("caches", asBytes("n"));
    if (!row || !cache || asText(*row) != asText(*cache)) return 2;
    if (first && write(ready, "r", 1) != 1) return 3;
    if (snapshot->get("rows", asBytes("end"))) kill(getpid(), SIGKILL);
  }
}

}  // namespace Brine
