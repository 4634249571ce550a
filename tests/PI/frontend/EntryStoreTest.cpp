// A snapshot of the store keeps showing what stood there, whatever Writes do meanwhile.
#include "PI/frontend/EntryStore.h"

#include <gtest/gtest.h>

#include <cstring>

namespace pi::fe::proto {
namespace {

class EntryStoreTest : public testing::Test {
 protected:
  static EntrySlot slot(char key, uint32_t action) {
    EntryPtr entry = Entry::make(1, 1, 0, 0);
    entry->actionId = action;
    *entry->keyData() = static_cast<uint8_t>(key);
    const size_t hash = entry->key().hash();
    return {std::move(entry), hash};
  }
  // The action of the entry, 0 when there is none.
  static uint32_t action(const EntryPtr& entry) { return entry ? entry->actionId : 0; }
  uint32_t now(char key) const { return action(store.entry(slot(key, 0).entry->key())); }
  static uint32_t then(const EntryStore::Snapshot& snapshot, char key) {
    return action(snapshot.entry(slot(key, 0).entry->key()));
  }

  WriteLog::Touched* touched(WriteLog& log, char key) { return &log.touched()[slot(key, 0)]; }
  void commit(WriteLog& log, char key, uint32_t action, bool isDelete = false) {
    std::vector<Change> changes;
    changes.push_back({slot(key, action), isDelete, touched(log, key)});
    store.commit(changes);
  }

  EntryStore store;
};

TEST_F(EntryStoreTest, SnapshotOutlivesWritesOfSeveralBatches) {
  store.entryIs(slot('a', 1).entry);
  store.entryIs(slot('b', 1).entry);
  const EntryStore::Snapshot before(store);
  const auto first = std::make_shared<WriteLog>(2);
  touched(*first, 'a');
  touched(*first, 'c');
  store.writeBegin(first);
  EXPECT_EQ(then(before, 'a'), 1u) << "touched, not committed";
  commit(*first, 'a', 2);
  commit(*first, 'c', 2);
  commit(*first, 'a', 3);  // a second batch
  const EntryStore::Snapshot during(store);
  commit(*first, 'c', 0, true);
  store.writeEnd();
  const auto second = std::make_shared<WriteLog>(1);
  touched(*second, 'b');
  store.writeBegin(second);
  commit(*second, 'b', 0, true);
  store.writeEnd();

  for (const auto* snapshot : {&before, &during}) {
    EXPECT_EQ(then(*snapshot, 'a'), 1u);
    EXPECT_EQ(then(*snapshot, 'b'), 1u);
    EXPECT_EQ(then(*snapshot, 'c'), 0u);
    EXPECT_EQ(snapshot->touchedSince(1).size(), 3u);
    EXPECT_EQ(snapshot->touchedSince(2).size(), 0u);
  }
  EXPECT_EQ(now('a'), 3u);
  EXPECT_EQ(now('b'), 0u);
  EXPECT_EQ(now('c'), 0u);
  EXPECT_EQ(store.size(), 1u);
}

TEST_F(EntryStoreTest, ForgetsWhatNoSnapshotNeeds) {
  const auto log = std::make_shared<WriteLog>(1);
  touched(*log, 'a');
  {
    const EntryStore::Snapshot snapshot(store);
    store.writeBegin(log);
    commit(*log, 'a', 1);
    store.writeEnd();
    EXPECT_EQ(log.use_count(), 2);
  }
  EXPECT_EQ(log.use_count(), 1);
  EXPECT_EQ(then(EntryStore::Snapshot(store), 'a'), 1u);
}

}  // namespace
}  // namespace pi::fe::proto
