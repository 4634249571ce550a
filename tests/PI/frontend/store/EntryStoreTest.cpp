// A snapshot of the store keeps showing the former entries while Writes go on.
#include "PI/frontend/store/EntryStore.h"

#include <gtest/gtest.h>

#include <cstring>
#include <iterator>
#include <map>

namespace pi::fe::proto {
namespace {

constexpr uint32_t kEntries = 3 * EntryPages::kPageEntries;

class EntryStoreTest : public testing::Test {
 protected:
  using Actions = std::map<uint32_t, uint32_t>;  // by key
  using Pages = std::vector<const EntryPages::Page*>;

  EntryStoreTest() {
    for (uint32_t key = 0; key < kEntries; ++key) store.entryIs(slot(key, 1).entry);
  }

  static EntrySlot slot(uint32_t key, uint32_t action) {
    EntryPtr entry = Entry::make(1, sizeof(key), 0, 0);
    entry->actionId = action;
    std::memcpy(entry->keyData(), &key, sizeof(key));
    const size_t hash = entry->key().hash();
    return {std::move(entry), hash};
  }
  static Change change(uint32_t key, uint32_t action) { return {slot(key, action), action == 0}; }
  void keep(uint32_t key, uint32_t action) {
    Change one = change(key, action);
    store.keep({&one, 1});
  }
  void commit(uint32_t key, uint32_t action) {
    Change one = change(key, action);
    store.commit({&one, 1});
  }

  // The action of the entry; 0: no entry.
  static uint32_t action(const Entry* entry) { return entry ? entry->actionId : 0; }
  uint32_t inWrite(uint32_t key) const {
    const EntrySlot wanted = slot(key, 0);
    return action(store.committed({wanted.entry->key(), wanted.hash}));
  }
  uint32_t now(uint32_t key) const { return action(store.entry(slot(key, 0).entry->key()).get()); }
  static Actions all(const EntryStore::Snapshot& snapshot) {
    Actions result;
    for (const auto& page : snapshot.table(1).pages) {
      for (const EntryPtr& entry : page->entries) {
        if (!entry) continue;
        uint32_t key = 0;
        std::memcpy(&key, entry->keyData(), sizeof(key));
        result[key] = entry->actionId;
      }
    }
    return result;
  }
  Pages pages() {
    const EntryStore::Snapshot snapshot(store);
    Pages result;
    for (const auto& page : snapshot.table(1).pages) result.push_back(page.get());
    return result;
  }

  EntryStore store;
};

TEST_F(EntryStoreTest, RestoredEntriesAddOrReplaceInOrder) {
  EntrySlot slots[] = {slot(1, 2), slot(kEntries, 3), slot(kEntries, 4)};
  store.reserve(std::size(slots));
  store.entriesAre(slots);
  EXPECT_EQ(now(1), 2u);
  EXPECT_EQ(now(kEntries), 4u);
  EXPECT_EQ(store.size(), kEntries + 1);
  EXPECT_EQ(all(EntryStore::Snapshot(store)).at(kEntries), 4u);
}

TEST_F(EntryStoreTest, SnapshotOutlivesWritesOfSeveralBatches) {
  const EntrySlot one = slot(7, 0);
  const EntryLookup wanted[] = {{one.entry->key(), one.hash}};
  const EntryStore::Snapshot before(store, wanted);
  const Actions former = all(before);
  ASSERT_EQ(former.size(), kEntries);
  keep(7, 2);
  keep(8, 0);
  keep(kEntries, 2);
  keep(7, 3);  // a second batch
  EXPECT_EQ(inWrite(7), 3u);
  EXPECT_EQ(inWrite(8), 0u);
  EXPECT_EQ(now(7), 1u) << "the Write has not ended";
  const EntryStore::Snapshot during(store);
  commit(8, 4);
  commit(200, 0);
  commit(201, 5);
  EXPECT_EQ(action(before.found()[0].get()), 1u);
  EXPECT_EQ(all(before), former);
  EXPECT_EQ(all(during), former);
  Actions latter = former;
  latter[7] = 3;
  latter[8] = 4;
  latter[kEntries] = 2;
  latter[201] = 5;
  latter.erase(200);
  EXPECT_EQ(all(EntryStore::Snapshot(store)), latter);
  EXPECT_EQ(now(7), 3u);
  EXPECT_EQ(now(200), 0u);
  EXPECT_EQ(store.size(), latter.size());
}

// A change costs the same beside a Read that never ends as without a Read.
TEST_F(EntryStoreTest, AChangeCopiesThePageThatASnapshotSeesAndNoOther) {
  const Pages former = pages();
  commit(0, 2);
  EXPECT_EQ(pages(), former) << "nobody sees it any more";
  const EntryStore::Snapshot longRead(store);
  for (uint32_t action = 2; action < 1000; ++action) commit(0, action);
  const Pages latter = pages();
  EXPECT_NE(latter[0], former[0]);
  EXPECT_EQ(latter[1], former[1]);
  EXPECT_EQ(latter[2], former[2]);
  EXPECT_EQ(all(longRead).at(0), 2u);
}

TEST_F(EntryStoreTest, RoomOfDeletedEntriesIsTakenAgain) {
  const EntryStore::Snapshot longRead(store);
  for (uint32_t key = 0; key < 10 * kEntries; ++key) {
    commit(key, 0);
    commit(key + kEntries, 1);
  }
  EXPECT_EQ(pages().size(), 3u);
  EXPECT_EQ(store.size(), kEntries);
}

}  // namespace
}  // namespace pi::fe::proto
