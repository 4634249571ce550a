// Followers and snapshots beside a writer that does all it can.
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>

#include "platform/brine/StoreFile.h"
#include "tests/platform/brine/Workload.h"
#include "tests/support/TempDir.h"

namespace Brine {
namespace {

using TestSupport::TempDir;

TEST(FollowerTest, HasTheWritersStateHoweverFarItFallsBehind) {
  const struct {
    const char* what;
    uint32_t changes;
    int pause;     // steps between two looks
    size_t least;  // changes followed
  } cases[] = {
      {"follows at once", 256, 1, 5000},
      {"follows later", 256, 30, 1000},
      {"is lapped by the ring, and trimmed", 64, 50, 50},
  };
  for (const auto& one : cases) {
    SCOPED_TRACE(one.what);
    const TempDir directory;
    Workload workload({.directory = directory.path(), .changes = one.changes});
    const auto reader = Reader::open(directory.path());
    Follower follower;
    for (int step = 1; step <= 20000 && !testing::Test::HasFailure(); ++step) {
      SCOPED_TRACE(step);
      workload.step();
      if (step % one.pause != 0) continue;
      follower.catchUp(*reader);
      follower.expectContents(*reader, workload.committed());
    }
    EXPECT_GT(follower.sequence, 10000u);
    EXPECT_GT(follower.changes, one.least) << follower.snapshots << " snapshots";
    EXPECT_GT(follower.snapshots, 20u);
  }
}

// The former version is taken up again in its slot, where followers would read the deletion's key.
TEST(FollowerTest, HearsOfADeletionWhoseUndoingComesToNothing) {
  const TempDir directory, killed;
  auto store = Store::open({.directory = directory.path()});
  const TableNumber rows = store->table("rows");
  store->put(rows, asBytes("a"), asBytes("1"));
  store->commit();
  const auto reader = Reader::open(directory.path());
  Follower follower;
  follower.catchUp(*reader);
  const uint64_t deletion = store->nextSequence();
  store->erase(rows, asBytes("a"));
  store->commit();
  store->undo(deletion);
  std::filesystem::copy_file(dataPath(directory.path()), dataPath(killed.path()));
  Follower late = follower;
  follower.catchUp(*reader);
  follower.expectContents(*reader, {{"rows", {}}});
  store->discard();
  follower.catchUp(*reader);
  follower.expectContents(*reader, {{"rows", {}}});

  const auto next = Store::open({.directory = killed.path()});
  next->put(rows, asBytes("b"), asBytes("2"));  // in the slot that was a's
  next->commit();
  const auto readerOfNext = Reader::open(killed.path());
  late.catchUp(*readerOfNext);
  late.expectContents(*readerOfNext, {{"rows", {{"b", {"2"}}}}});
}

constexpr int accounts = 3000;
constexpr int64_t total = accounts * int64_t{100};

// Moves amounts between random accounts for ever; those of 0 are not there. Tables of five records
// come and go.
class Bank {
 public:
  explicit Bank(const std::string& directory)
      : store_(Store::open({.directory = directory, .changes = 1 << 20})),
        rows_(store_->table("rows")) {
    for (int i = 0; i < accounts; ++i) enter(i, 100);
    store_->commit();
  }
  void move() {
    for (int i = 0; i < 20; ++i) {
      const int from = pick(), to = pick();
      const int64_t amount = random_() % 4 == 0 ? balances_[from] : balances_[from] / 2;
      enter(from, balances_[from] - amount);
      enter(to, balances_[to] + amount);
    }
    if (++moves_ == replacing_) replaceTable();
    store_->commit();
    store_->settle();
    store_->trim(store_->nextSequence(), 0);
  }
  // Not more often than the tables are looked at, or no look would come to an end.
  void handleLook() { replacing_ = moves_ + 1 + static_cast<int>(random_() % 20); }
  void end() {
    store_->table("end");
    store_->commit();
  }

 private:
  int pick() { return static_cast<int>(random_() % accounts); }
  void enter(int account, int64_t balance) {
    balances_[account] = balance;
    const std::string key = "account" + std::to_string(account);
    if (balance == 0) return void(store_->erase(rows_, asBytes(key)));
    const std::string text = std::to_string(balance) + ' ' + std::string(random_() % 700, '.');
    store_->put(rows_, asBytes(key), asBytes(text));
  }
  void replaceTable() {
    const auto name = [](int number) { return "five" + std::to_string(number); };
    store_->tableDel(name(fives_));
    const TableNumber five = store_->table(name(++fives_));
    for (const char* key : {"1", "2", "3", "4", "5"}) store_->put(five, asBytes(key), asBytes(""));
  }

  std::unique_ptr<Store> store_;
  const TableNumber rows_;
  std::mt19937 random_{3};
  std::map<int, int64_t> balances_;
  int moves_ = 0, replacing_ = 0, fives_ = 0;
};

TEST(FollowerTest, SnapshotsOfAnotherProcessAreOfOneCommitWhileTheWriterWrites) {
  const TempDir directory;
  Bank bank(directory.path());
  int looks[2];
  ASSERT_EQ(pipe(looks), 0);
  const pid_t child = fork();
  if (child == 0) {
    execl("/proc/self/exe", "brine_test", "--audit", directory.path().c_str(),
          std::to_string(looks[1]).c_str(), nullptr);
    _exit(1);
  }
  close(looks[1]);
  char look = 0;
  for (int seen = 0; seen < 300; ++seen) {
    pollfd one{looks[0], POLLIN, 0};
    while (poll(&one, 1, 0) == 0) bank.move();
    if (read(looks[0], &look, 1) != 1) break;  // it has ended
    bank.handleLook();
  }
  bank.end();
  close(looks[0]);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0) << "its output tells the fault";
}

int64_t balanceOf(std::string_view text) { return std::stoll(std::string(text)); }

int64_t sumOf(const Snapshot& snapshot) {
  int64_t sum = 0;
  snapshot.forEach("rows",
                   [&](Bytes, Bytes value) { return sum += balanceOf(asText(value)), true; });
  return sum;
}

}  // namespace

// The child of the test above.
int audit(const std::string& directory, int looks) {
  signal(SIGPIPE, SIG_IGN);
  const auto reader = Reader::open(directory);
  Follower follower;
  for (bool isEnd = false; !isEnd && !testing::Test::HasFailure();) {
    Reader::open(directory);  // while the file grows
    const auto snapshot = reader->snapshot();
    isEnd = snapshot->hasTable("end");
    EXPECT_EQ(sumOf(*snapshot), total);
    EXPECT_TRUE(snapshot->damagedRecords().empty());
    for (const std::string& name : snapshot->tableNames()) {
      EXPECT_TRUE(!name.starts_with("five") || snapshot->count(name) == 5) << name;
    }
    follower.catchUp(*reader);
    if (write(looks, "l", 1) != 1 && !isEnd) isEnd = reader->tableNumber("end") != 0;
  }
  // The writer has ended: all that was followed must have come to its last state.
  follower.catchUp(*reader);
  int64_t sum = 0;
  for (const auto& [key, value] : follower.tables[reader->tableNumber("rows")]) {
    sum += balanceOf(value);
  }
  EXPECT_EQ(sum, total) << "followed";
  EXPECT_GT(follower.snapshots, 0u);
  return testing::Test::HasFailure() ? 1 : 0;
}

}  // namespace Brine
