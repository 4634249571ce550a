#include "P4Runtime/companion/P4HandleMgr.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>
#include <tuple>

namespace P4Runtime {
namespace {

EntryHandle bound(P4HandleMgr& handles, uint32_t table, const std::string& key,
                  uint32_t priority = 0) {
  return handles.getOrCreateTableEntryHandle(table, key.size(), key.data(), priority);
}

bool restored(P4HandleMgr& handles, EntryHandle handle, const std::string& key) {
  return handles.restoreTableEntryHandle(1, handle, key.size(), key.data(), 0);
}

TEST(P4HandleMgr, TableKeyAndPriorityTogetherNameAnEntry) {
  P4HandleMgr handles;
  const EntryHandle first = bound(handles, 1, "key", 5);
  EXPECT_NE(first, 0u);
  EXPECT_EQ(bound(handles, 1, "key", 5), first);
  EXPECT_NE(bound(handles, 2, "key", 5), first);
  EXPECT_NE(bound(handles, 1, "key", 6), first);
  EXPECT_NE(bound(handles, 1, std::string("key\0", 4), 5), first);
  EXPECT_EQ(handles.entryHandleToResourceId(first), (ResourceId{tableResource, 1}));
  EXPECT_EQ(handles.entryHandleCount({tableResource, 1}), 3u);
  EXPECT_EQ(handles.matchKeyToEntryHandle(1, "other", 5), 0u);
  EXPECT_EQ(handles.entryHandleCount({tableResource, 1}), 3u);  // looking up binds nothing
}

TEST(P4HandleMgr, FreedHandleIsNeverGivenOutAgain) {
  P4HandleMgr handles;
  const EntryHandle first = bound(handles, 1, "a");
  handles.freeTableEntryHandle(first);
  handles.freeTableEntryHandle(first);
  EXPECT_FALSE(handles.entryHandleToResourceIdHas(first));
  EXPECT_EQ(handles.entryHandleToResourceId(first), ResourceId{});
  EXPECT_EQ(handles.entryHandleCount({tableResource, 1}), 0u);
  EXPECT_GT(bound(handles, 1, "a"), first);
}

TEST(P4HandleMgr, RestoredHandlesComeBackAndNewOnesStartAboveThem) {
  P4HandleMgr handles;
  EXPECT_TRUE(restored(handles, 500, "a"));
  EXPECT_TRUE(restored(handles, 500, "a"));   // once more, after another push of the pipeline
  EXPECT_FALSE(restored(handles, 501, "a"));  // the key is another handle's
  EXPECT_FALSE(restored(handles, 500, "b"));  // the handle is another key's
  EXPECT_FALSE(restored(handles, 0, "c"));
  EXPECT_TRUE(restored(handles, 7, "d"));
  EXPECT_EQ(bound(handles, 1, "a"), 500u);
  EXPECT_EQ(bound(handles, 1, "e"), 501u);
  handles.reserveUpTo(1000);
  EXPECT_EQ(bound(handles, 1, "f"), 1001u);
}

// Against a model, since slots are used again while handles are not.
TEST(P4HandleMgr, AgreesWithAMapUnderRandomUse) {
  constexpr unsigned seed = 20240607;
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  P4HandleMgr handles;
  std::map<std::tuple<uint32_t, std::string, uint32_t>, EntryHandle> model;
  for (int step = 0; step < 20000; ++step) {
    const uint32_t table = random() % 3;
    const std::string key = std::to_string(random() % 100);
    const uint32_t priority = random() % 2;
    const auto known = model.find({table, key, priority});
    if (random() % 2 == 0) {
      const EntryHandle handle = bound(handles, table, key, priority);
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
  for (uint32_t table = 0; table < 3; ++table) {
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
