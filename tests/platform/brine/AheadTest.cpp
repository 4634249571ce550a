// Readers that read changes ahead of their commit.
#include <gmock/gmock.h>

#include <atomic>
#include <filesystem>
#include <sstream>
#include <thread>

#include "platform/brine/StoreFile.h"
#include "tests/platform/brine/Workload.h"
#include "tests/support/TempDir.h"

namespace Brine {
namespace {

using TestSupport::TempDir;
using Texts = std::map<std::string, std::string>;

// One transaction told in words, and a reader that reads ahead at each showing. A record "k" of the
// value 1 was there before.
class Told {
 public:
  explicit Told(const std::string& words) {
    row("k=1");
    store_->commit();
    reader_ = Reader::open(directory_.path());
    from_ = reached_ = store_->committedSequence();
    rows_ = {{"k", "1"}};
    std::istringstream each(words);
    for (std::string word; each >> word;) tell(word);
  }
  Store& store() { return *store_; }
  const std::string& directory() const { return directory_.path(); }
  const std::string& visits() const { return visits_; }
  bool cameTrue() const { return reader_->cameTrue(from_, reached_); }
  // As the reader has the rows: those it read ahead, and the rest of the commit.
  const Texts& rows() {
    read(reader_->follow(reached_, UINT64_MAX, visit_));
    return rows_;
  }
  Texts committedRows() {
    Texts all;
    reader_->snapshot()->forEach("rows", [&](Bytes key, Bytes value) {
      return all.emplace(asText(key), asText(value)).second;
    });
    return all;
  }
  // The rows once a reader whose writer has died takes back the changes that it has visited.
  Texts rowsTakenBack() {
    const uint64_t last = reader_->lastWritten(reached_);
    EXPECT_TRUE(reader_->visitTakenBack(from_ + 1, last, [&](auto& one) { apply(one); }));
    return rows_;
  }

 private:
  // "k=2" by owner 7, or "k=2@8"; "-k" for an erasure; "!" for a showing and a look, "look" without
  // one; "undo", of the last change; "fill", of the ring; "commit"; "discard"; "drop", of the
  // table.
  void tell(const std::string& word) {
    if (word == "!") return read(reader_->followAhead(reached_, store_->showAhead(), visit_));
    if (word == "look")
      return read(reader_->followAhead(reached_, store_->nextSequence() - 1, visit_));
    if (word == "fill") return fill();
    if (word == "commit") return store_->commit();
    if (word == "discard") return store_->discard();
    if (word == "drop") return store_->tableDel("rows");
    if (word == "undo") return void(store_->undo(store_->nextSequence() - 1));
    if (word[0] == '-') return void(store_->eraseFor(table_, asBytes(word.substr(1)), 7));
    row(word);
  }
  void fill() {
    for (int i = 0; i < 100; ++i) row("x=1");
  }
  void row(const std::string& word) {
    const std::string key = word.substr(0, 1), value = word.substr(2, 1);
    const auto former = store_->get(table_, asBytes(key));
    const bool isSame = former && asText(*former) == value;
    const uint64_t owner = word.ends_with("@8") ? 8 : 7;
    const auto to = store_->write(table_, asBytes(key), 1, {.owner = owner, .unchanged = isSame});
    to.value[0] = static_cast<uint8_t>(value[0]);
  }
  void read(std::optional<uint64_t> reached) {
    if (!reached) visits_ += "lost ";
    reached_ = reached.value_or(reached_);
  }
  void apply(const FollowedChange& one) {
    const std::string key(asText(one.key)), value(asText(one.value));
    visits_ += (one.deleted ? "-" + key : key + "=" + value) + (one.unchanged ? "~ " : " ");
    one.deleted ? void(rows_.erase(key)) : void(rows_[key] = value);
  }

  const TempDir directory_;
  std::unique_ptr<Store> store_ = Store::open({.directory = directory_.path(), .changes = 64});
  const TableNumber table_ = store_->table("rows");
  std::unique_ptr<Reader> reader_;
  const Reader::ChangesVisit visit_ = [this](std::span<const FollowedChange> changes) {
    for (const FollowedChange& one : changes) apply(one);
  };
  uint64_t from_ = 0, reached_ = 0;
  Texts rows_;
  std::string visits_;
};

// "~": unchanged, so that a follower need do nothing.
TEST(AheadTest, AReaderVisitsTheChangesShownAndHearsWhetherTheyCameTrue) {
  const struct {
    const char* what;
    const char* words;
    const char* visits;
    bool cameTrue;
  } cases[] = {
      {"nothing", "! commit", "", true},
      {"not shown", "a=1 look commit", "lost ", true},
      {"lapped by the ring", "a=1 ! fill ! commit", "a=1 lost ", false},
      {"in their order", "b=1 a=2 ! -k c=3 ! commit", "b=1 a=2 -k c=3 ", true},
      {"one showing has no end", "a=1 ! ! b=1 ! commit", "a=1 b=1 ", true},
      {"the rest comes later", "a=1 ! b=2 commit", "a=1 ", true},
      {"written twice and shown", "a=1 a=2 ! commit", "a=2 ", true},
      {"shown and written", "a=1 ! a=2 ! commit", "a=1 a=2 ", true},
      {"shown and replaced later", "a=1 ! a=2 commit", "a=1 ", true},
      {"shown and written by another", "a=1 ! a=2@8 ! commit", "a=1 a=2 ", true},
      {"shown and written as it is", "a=1 ! a=1 ! commit", "a=1 a=1 ", true},
      {"as it was", "k=1 ! commit", "k=1~ ", true},
      {"shown and written back", "k=2 ! k=1 ! commit", "k=2 k=1 ", true},
      {"never there", "-a ! commit", "-a~ ", true},
      {"written, erased and shown", "a=1 -a ! commit", "-a~ ", true},
      {"shown and erased", "a=1 ! -a ! commit", "a=1 -a ", true},
      {"shown, written and erased", "a=1 ! a=2 -a ! commit", "a=1 -a ", true},
      {"shown, erased and erased", "a=1 ! -a -a ! commit", "a=1 -a -a~ ", true},
      {"erased and written", "-k ! k=2 ! commit", "-k k=2 ", true},
      {"erased, written and erased", "-k ! k=2 ! -k ! commit", "-k k=2 -k ", true},
      {"discarded", "a=1 -k ! discard", "a=1 -k ", false},
      {"discarded before more is shown", "a=1 ! discard a=2 ! commit", "a=1 a=2 ", false},
      {"undone", "a=1 ! undo commit", "a=1 ", false},
      {"erasure undone", "b=1 -k ! undo commit", "b=1 -k ", false},
      {"undone before it is shown", "a=1 undo b=1 ! commit", "b=1 ", false},
      {"another change undone later", "a=1 ! b=1 undo commit", "a=1 ", true},
      {"shown, replaced and undone", "a=1 ! a=2 undo commit", "a=1 ", false},
      {"shown, erased and undone", "k=2 ! -k undo commit", "k=2 ", false},
      {"erasure shown and undone", "a=1 ! -a ! undo commit", "a=1 -a ", true},
      {"its table goes", "a=1 ! drop", "a=1 ", true},
  };
  for (const auto& one : cases) {
    SCOPED_TRACE(one.what);
    Told told(one.words);
    EXPECT_EQ(told.visits(), one.visits);
    EXPECT_EQ(told.cameTrue(), one.cameTrue);
    const bool isDropped = !told.store().hasTable("rows");
    if (!told.cameTrue() || isDropped) continue;
    EXPECT_EQ(told.rows(), told.committedRows());
  }
}

// The writer was killed: readers make the rows as they were, and the next one knows nothing of it.
TEST(AheadTest, WithoutACommitNothingWas) {
  const struct {
    const char* what;
    const char* words;
  } cases[] = {
      {"a new record", "a=1 !"},
      {"a changed one", "k=2 !"},
      {"an erased one", "-k !"},
      {"several changes of one", "k=2 ! k=3@8 ! -k !"},
      {"a new one, gone again", "a=1 ! -a ! a=2 !"},
      {"one that was written once more", "k=2 ! k=3"},
      {"a new one that was erased next", "a=1 ! -a"},
      {"others that were not shown", "a=1 -k ! b=1 k=2 k=3@8 -c"},
  };
  for (const auto& one : cases) {
    SCOPED_TRACE(one.what);
    Told told(one.words);
    EXPECT_FALSE(told.cameTrue());
    EXPECT_EQ(told.committedRows(), (Texts{{"k", "1"}}));
    const TempDir killed;
    std::filesystem::copy_file(dataPath(told.directory()), dataPath(killed.path()));
    EXPECT_EQ(told.rowsTakenBack(), (Texts{{"k", "1"}}));
    auto next = Store::open({.directory = killed.path()});
    const auto reader = Reader::open(killed.path());
    EXPECT_EQ(reader->snapshot()->count("rows"), 1u);
    Follower follower{.sequence = next->committedSequence()};
    EXPECT_TRUE(follower.readAhead(*reader, next->showAhead()));
    EXPECT_TRUE(follower.tables.empty());
  }
}

// Reads ahead, and goes by the commits alone where that did not come true.
struct AheadFollower {
  Follower committed, ahead;
  size_t truths = 0, surprises = 0;

  void readAhead(Reader& reader, uint64_t to) {
    if (reader.state().committed == committed.sequence) ahead.readAhead(reader, to);
  }
  void catchUp(Reader& reader) {
    if (reader.state().committed == committed.sequence) return;
    const bool wasAhead = ahead.sequence != committed.sequence;
    if (wasAhead && !reader.cameTrue(committed.sequence, ahead.sequence)) {
      ++surprises;
      ahead = committed;
    }
    truths += wasAhead && ahead.sequence != committed.sequence;
    ahead.catchUp(reader);
    committed = ahead;
  }
  void forgetAhead() { ahead = committed; }
};

TEST(AheadTest, AReaderOfRandomWorkHasTheWritersStateAfterEachCommit) {
  for (const uint32_t changes : {256u, 64u}) {
    SCOPED_TRACE(changes);
    const TempDir directory;
    Workload workload({.directory = directory.path(), .changes = changes}, changes);
    const auto reader = Reader::open(directory.path());
    std::mt19937 random(changes);
    AheadFollower follower;
    int openings = workload.openings();
    for (int step = 1; step <= 20000 && !testing::Test::HasFailure(); ++step) {
      SCOPED_TRACE(step);
      workload.step();
      // Its numbers may be those of other changes now.
      if (std::exchange(openings, workload.openings()) != workload.openings()) {
        follower.forgetAhead();
      }
      follower.catchUp(*reader);
      follower.committed.expectContents(*reader, workload.committed());
      if (random() % 2 == 0) follower.readAhead(*reader, workload.store().showAhead());
    }
    EXPECT_GT(follower.truths, 1000u);
    EXPECT_GT(follower.surprises, 300u);
  }
}

// A slot is used again in the transaction that has shown it.
TEST(AheadTest, NoRecordIsTornWhileTheWriterGoesOn) {
  const TempDir directory;
  auto store = Store::open({.directory = directory.path(), .changes = 1 << 12});
  const TableNumber table = store->table("rows");
  store->commit();
  std::atomic<uint64_t> shown = 0, looks = 0;
  std::atomic<bool> done = false;
  AheadFollower follower;
  std::thread reading([&] {
    const auto reader = Reader::open(directory.path());
    for (bool isLast = false; !isLast && !testing::Test::HasFailure();) {
      isLast = done;
      follower.readAhead(*reader, shown);
      for (const auto& [key, value] : follower.ahead.tables[table]) {
        EXPECT_EQ(value, std::string(value.size(), value[0]));
      }
      follower.catchUp(*reader);
      ++looks;
    }
  });
  std::mt19937 random(5);
  const auto change = [&] {
    const std::string key = "key" + std::to_string(random() % 10);
    if (random() % 4 == 0) return void(store->eraseFor(table, asBytes(key), 1));
    const auto to = store->write(table, asBytes(key), 3000 + random() % 500, {.owner = 1}).value;
    std::ranges::fill(to, static_cast<uint8_t>('a' + random() % 26));
  };
  const auto letLook = [&] {
    const uint64_t enough = looks + 2;
    while (looks < enough && !testing::Test::HasFailure()) std::this_thread::yield();
  };
  for (int i = 0; i < 400; ++i) {
    for (unsigned left = random() % 200; left > 0; --left) {
      change();
      if (left % 4 == 0) shown = store->showAhead();
      if (left % 64 == 0) letLook();
    }
    random() % 5 == 0 ? store->discard() : store->commit();
    store->settle();
    store->trim(0, 1000);
    if (i % 2 == 0) letLook();
  }
  done = true;
  reading.join();
  EXPECT_GE(follower.truths, 50u);
  Texts rows;
  for (const auto& [key, row] : rowsOf(*store, "rows")) rows[key] = row.value;
  EXPECT_EQ(follower.committed.tables[table], rows);
}

}  // namespace
}  // namespace Brine
