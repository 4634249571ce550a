// A writer that is killed at any store of a word. At each of them, the file is copied as it is, and
// the copy opened by the next writer and by followers, as if the first one had ended there.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>
#include <vector>

#include "platform/brine/Layout.h"
#include "platform/brine/StoreFile.h"
#include "tests/platform/brine/Workload.h"
#include "tests/support/TempDir.h"

namespace Brine {
namespace {

using TestSupport::TempDir;
using Image = std::vector<uint64_t>;  // a file's bytes

void copyFile(const std::string& path, Image& image) {
  const int file = open(path.c_str(), O_RDONLY);
  struct stat status {};
  fstat(file, &status);
  image.resize(static_cast<size_t>(status.st_size) / sizeof(uint64_t));
  EXPECT_EQ(read(file, image.data(), image.size() * sizeof(uint64_t)), status.st_size);
  close(file);
}

void makeFile(const std::string& path, const Image& image) {
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  const size_t bytes = image.size() * sizeof(uint64_t);
  EXPECT_EQ(write(file, image.data(), bytes), static_cast<ssize_t>(bytes));
  close(file);
}

bool hasFailure() { return testing::Test::HasFailure(); }

class Crashes {
 public:
  explicit Crashes(unsigned seed) : random_(seed), workload_(options_, seed) {
    current_ = this;
    faultPoint = [](Moment moment) { current_->reach(moment); };
  }
  ~Crashes() { faultPoint = nullptr; }

  void run(int steps) {
    copyFile(dataPath(live_.path()), last_[0]);
    for (int step = 0; step < steps && !hasFailure(); ++step) {
      SCOPED_TRACE("step " + std::to_string(step));
      watched_ = 0;
      workload_.step();
      watched_ = nobody;
      if (pick(7) == 0) follower_.catchUp(*reader_);
    }
  }
  // Of the writer, or of its successor during recovery.
  int count(int who) const { return crashes_[who]; }
  int undone() const { return undone_; }

 private:
  static constexpr int nobody = -1;
  struct Expected {
    const Model* before = nullptr;
    uint64_t sequence = 0;  // of `before`; else it is `after`
    const Model* after = nullptr;
  };

  unsigned pick(unsigned below) { return static_cast<unsigned>(random_() % below); }

  void reach(Moment moment) {
    if (watched_ == nobody || hasFailure()) return;
    const int who = std::exchange(watched_, nobody);
    Image now;
    copyFile(dataPath(who == 0 ? live_.path() : copies_[0].path()), now);
    if (moment == Moment::after) {
      crash(now, who);
      last_[who] = now;
    } else if (now != last_[who]) {
      crash(torn(last_[who], now), who);
    }
    watched_ = who;
  }
  // Of the stores since the last word, any may have been made.
  Image torn(Image from, const Image& to) {
    from.resize(to.size());
    const unsigned kept = pick(3);
    for (size_t i = 0; i < to.size(); ++i) {
      if (pick(2) < kept) from[i] = to[i];
    }
    return from;
  }

  void crash(const Image& image, int who) {
    SCOPED_TRACE("crash " + std::to_string(crashes_[who]++) + " of " + std::to_string(who));
    if (who == 0) {
      expected_ = {&workload_.committed(), workload_.committedSequence(),
                   &workload_.committedNext()};
    }
    const std::string& directory = copies_[who].path();
    makeFile(dataPath(directory), image);
    Follower follower = follower_;
    const Model& model = expectRead(directory, &follower);
    if (who == 0 && crashes_[0] % 40 == 0) {
      expected_ = {&model, 0, &model};
      last_[1] = image;
      watched_ = 1;
    }
    auto store = Store::open({.directory = directory});
    watched_ = nobody;
    expectWritten(*store, model);
    if (canUndo(*store) && pick(2) == 0) return expectUndoes(std::move(store), directory);
    store = expectGoesOn(std::move(store), directory, model, &follower);
  }
  const Model& expectRead(const std::string& directory, Follower* follower) {
    const auto reader = Reader::open(directory);
    const uint64_t committed = reader->state().committed;
    const Model& model = committed == expected_.sequence ? *expected_.before : *expected_.after;
    if (pick(2) == 0) {  // others look when the next writer is at work
      follower->catchUp(*reader);
      follower->expectContents(*reader, model);
    }
    const auto snapshot = reader->snapshot();
    EXPECT_EQ(snapshot->sequence(), committed);
    EXPECT_TRUE(snapshot->damagedRecords().empty());
    EXPECT_EQ(snapshot->tableNames(), namesOf(model));
    return model;
  }
  void expectWritten(Store& store, const Model& model) {
    EXPECT_TRUE(store.takeDamagedRecords().empty());
    EXPECT_EQ(store.tableNames(), namesOf(model));
    std::set<bool> isRight[2] = {{true}, {true}};
    for (const auto& [name, rows] : model) {
      EXPECT_EQ(rowsOf(store, name), rows) << name;
      EXPECT_EQ(store.count(store.table(name)), rows.size()) << name;
      for (const auto& [key, row] : rows) {
        const auto record = store.record(store.table(name), asBytes(key));
        ASSERT_TRUE(record && asText(record->value) == row.value) << key;
        const auto [before, after] = workload_.settled();
        isRight[0].insert(store.isUnsettled(*record) == (row.sequence > before));
        isRight[1].insert(store.isUnsettled(*record) == (row.sequence > after));
      }
    }
    EXPECT_TRUE(isRight[0].size() == 1 || isRight[1].size() == 1) << "unsettled records";
  }
  // The ring still has the changes, whatever the writer did last.
  bool canUndo(Store& store) {
    const uint64_t last = std::max(workload_.nextSequence(), store.nextSequence());
    return last - store.settledSequence() < options_.changes - 4;
  }
  // All that waited for its outcome.
  void expectUndoes(std::unique_ptr<Store> store, const std::string& directory) {
    const uint64_t settled = store->settledSequence();
    undone_ += store->committedSequence() > settled;
    const TableNumber firstOfRows = 2;  // behind the list of tables
    for (uint64_t at = store->committedSequence(); at > settled; --at) {
      const auto change = store->change(at);
      if (change && change->table >= firstOfRows) store->undo(at);
    }
    store->commit();
    store->settle();
    store.reset();
    store = Store::open({.directory = directory});
    for (const auto& [name, rows] : workload_.settledAt(settled)) {
      if (!store->hasTable(name)) continue;
      EXPECT_EQ(valuesOf(rowsOf(*store, name)), valuesOf(rows)) << name;
    }
  }
  static std::map<std::string, std::string> valuesOf(const Rows& rows) {
    std::map<std::string, std::string> values;
    for (const auto& [key, row] : rows) values[key] = row.value;
    return values;
  }
  std::unique_ptr<Store> expectGoesOn(std::unique_ptr<Store> store, const std::string& directory,
                                      Model model, Follower* follower) {
    for (auto& [name, rows] : model) {
      const TableNumber table = store->table(name);
      if (!rows.empty()) {
        store->erase(table, asBytes(rows.begin()->first));
        rows.erase(rows.begin());
      }
      for (const char* key : {"key1", "new"}) {
        const auto written = store->write(table, asBytes(key), 40, {});
        std::ranges::fill(written.value, 'n');
        rows[key] = {std::string(40, 'n'), written.sequence};
      }
    }
    store->commit();
    const auto reader = Reader::open(directory);
    follower->catchUp(*reader);
    follower->expectContents(*reader, model);
    store->settle();
    store->trim(store->nextSequence(), 0);
    store.reset();
    store = Store::open({.directory = directory});
    for (const auto& [name, rows] : model) EXPECT_EQ(rowsOf(*store, name), rows) << name;
    return store;
  }
  static std::vector<std::string> namesOf(const Model& model) {
    std::vector<std::string> names;
    for (const auto& [name, rows] : model) names.push_back(name);
    return names;
  }

  static inline Crashes* current_ = nullptr;
  std::mt19937 random_;
  TempDir live_, copies_[2];
  const StoreOptions options_{.directory = live_.path(), .changes = 64};
  Workload workload_;
  std::unique_ptr<Reader> reader_ = Reader::open(live_.path());
  Follower follower_;  // lags
  Expected expected_;
  int watched_ = nobody;
  int crashes_[2] = {};
  int undone_ = 0;
  Image last_[2];  // after the last store of a word
};

TEST(CrashTest, AtAnyStoreLeavesTheStateOfTheLastCommit) {
  int counts[2] = {};
  int undone = 0;
  for (unsigned seed = 1; seed <= 6 && !hasFailure(); ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    Crashes crashes(seed);
    crashes.run(120);
    for (int who : {0, 1}) counts[who] += crashes.count(who);
    undone += crashes.undone();
  }
  EXPECT_GT(counts[0], 3000);
  EXPECT_GT(counts[1], 300);
  EXPECT_GT(undone, 300);
}

}  // namespace
}  // namespace Brine
