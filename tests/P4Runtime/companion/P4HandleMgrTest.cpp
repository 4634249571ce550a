#include "P4Runtime/companion/P4HandleMgr.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>
#include <tuple>

namespace P4Runtime {
namespace {

// The entries that were written, as the rows of the agent's tables know them.
struct P4HandleMgrTest : testing::Test, BoundKeys {
  using Key = std::tuple<uint32_t, std::string, uint32_t>;

  P4HandleMgrTest() { handles.boundKeysAre(this); }
  EntryHandle handleOf(uint32_t table, std::string_view key, uint32_t priority) const override {
    const auto found = written.find(Key{table, key, priority});
    return found == written.end() ? 0 : found->second;
  }
  EntryHandle bound(uint32_t table, const std::string& key, uint32_t priority = 0) {
    return written[{table, key, priority}] =
               handles.getOrCreateTableEntryHandle(table, key.size(), key.data(), priority);
  }
  bool restored(EntryHandle handle, const std::string& key) {
    const bool taken = handles.restoreTableEntryHandle(1, handle, key.size(), key.data(), 0);
    if (taken) written[{1, key, 0}] = handle;
    return taken;
  }

  P4HandleMgr handles;
  std::map<Key, EntryHandle> written;
};

TEST_F(P4HandleMgrTest, TableKeyAndPriorityTogetherNameAnEntry) {
  const EntryHandle first = bound(1, "key", 5);
  EXPECT_NE(first, 0u);
  EXPECT_EQ(bound(1, "key", 5), first);
  EXPECT_NE(bound(2, "key", 5), first);
  EXPECT_NE(bound(1, "key", 6), first);
  EXPECT_NE(bound(1, std::string("key\0", 4), 5), first);
  EXPECT_EQ(handles.entryHandleToResourceId(first), (ResourceId{tableResource, 1}));
  EXPECT_EQ(handles.entryHandleCount({tableResource, 1}), 3u);
  EXPECT_EQ(handles.matchKeyToEntryHandle(1, "other", 5), 0u);
  EXPECT_EQ(handles.entryHandleCount({tableResource, 1}), 3u);  // looking up binds nothing
}

TEST_F(P4HandleMgrTest, FreedHandleIsNeverGivenOutAgain) {
  const EntryHandle first = bound(1, "a");
  handles.freeTableEntryHandle(first);
  handles.freeTableEntryHandle(first);
  EXPECT_FALSE(handles.entryHandleToResourceIdHas(first));
  EXPECT_EQ(handles.entryHandleToResourceId(first), ResourceId{});
  EXPECT_EQ(handles.entryHandleCount({tableResource, 1}), 0u);
  EXPECT_GT(bound(1, "a"), first);
}

TEST_F(P4HandleMgrTest, RestoredHandlesComeBackAndNewOnesStartAboveThem) {
  EXPECT_TRUE(restored(500, "a"));
  EXPECT_TRUE(restored(500, "a"));   // once more, after another push of the pipeline
  EXPECT_FALSE(restored(501, "a"));  // the key is another handle's
  EXPECT_FALSE(restored(500, "b"));  // the handle is another key's
  EXPECT_FALSE(restored(0, "c"));
  EXPECT_TRUE(restored(7, "d"));
  EXPECT_EQ(bound(1, "a"), 500u);
  EXPECT_EQ(bound(1, "e"), 501u);
  handles.reserveUpTo(1000);
  EXPECT_EQ(bound(1, "f"), 1001u);
}

// Against a model, since slots are used again while handles are not.
TEST_F(P4HandleMgrTest, AgreesWithAMapUnderRandomUse) {
  constexpr unsigned seed = 20240607;
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  std::map<Key, EntryHandle> model;
  for (int step = 0; step < 20000; ++step) {
    const uint32_t table = 1 + random() % 3;
    const std::string key = std::to_string(random() % 100);
    const uint32_t priority = random() % 2;
    const auto known = model.find({table, key, priority});
    if (random() % 2 == 0) {
      const EntryHandle handle = bound(table, key, priority);
      if (known == model.end()) {
        model[{table, key, priority}] = handle;
      } else {
        ASSERT_EQ(handle, known->second);
      }
    } else if (known != model.end()) {
      handles.freeTableEntryHandle(known->second);
      model.erase(known);
    }
  }
  size_t entries = 0;
  for (uint32_t table = 1; table <= 3; ++table) {
    entries += handles.entryHandleCount({tableResource, table});
  }
  EXPECT_EQ(entries, model.size());
  for (const auto& [at, handle] : model) {
    EXPECT_EQ(handles.matchKeyToEntryHandle(std::get<0>(at), std::get<1>(at), std::get<2>(at)),
              handle);
  }
}

}  // namespace
}  // namespace P4Runtime
