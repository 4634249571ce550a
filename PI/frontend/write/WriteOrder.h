// In which of a Write's batches each update runs: independent ones together, in the first; one that
// depends on the outcome of earlier ones in a batch after theirs.
#pragma once

#include <absl/container/flat_hash_set.h>

#include <vector>

#include "PI/frontend/check/CheckedUpdate.h"
#include "PI/frontend/store/EntryStore.h"
#include "PI/frontend/store/ProfileUse.h"

namespace pi::fe::proto {

// For one Write, whose updates outlive this. An update depends on earlier updates of its key, on
// updates of the objects it points at, and, when it writes a member or group, on updates that point
// there.
class WriteOrder {
 public:
  WriteOrder(const EntryStore& store, const ProfileUse& use) : store_(store), use_(use) {}
  WriteOrder(const WriteOrder&) = delete;
  WriteOrder& operator=(const WriteOrder&) = delete;

  void reserve(size_t updates) {
    levels_.reserve(updates);
    places_.reserve(updates);
  }

  // The batch of the next update, counted from 0.
  uint32_t level(const CheckedUpdate& update);

 private:
  // One more than the last level that counts; 0: no level counts.
  struct ObjectLevels {
    uint32_t afterWrites = 0;
    uint32_t afterReferences = 0;
  };
  struct ProfileLevels {
    uint32_t afterObjects = 0;
    uint32_t afterActionSets = 0;
    uint32_t afterFreeing = 0;  // of room in the profile
    uint64_t expectedSize = 0;  // if nothing were freed
  };
  // All that stood, or may stand, under a key in the course of the Write.
  struct KeyHistory {
    absl::flat_hash_set<ObjectId> references;
    bool hasActionSet = false;
    uint64_t size = 0;  // of the latest
  };

  uint32_t levelInArray(const CheckedUpdate& update, uint32_t level);
  uint32_t levelInProfile(const CheckedUpdate& update, const Entry* key, bool isNew,
                          uint32_t level);
  uint32_t levelByReferences(const CheckedUpdate& update, const KeyHistory& history,
                             uint32_t level);
  uint32_t levelByProfile(const CheckedUpdate& update, KeyHistory* history, uint32_t level);
  void doRemember(const CheckedUpdate& update, const KeyHistory& history, uint32_t level);
  ProfileLevels& profileLevels(uint32_t profileId);

  const EntryStore& store_;
  const ProfileUse& use_;
  // Of an array, one more than the last level of an update of all its cells, and of any.
  struct ArrayLevels {
    uint32_t afterAll = 0;
    uint32_t afterAny = 0;
  };

  absl::flat_hash_map<ObjectId, ObjectLevels> objects_;
  absl::flat_hash_map<const EntityPlan*, ArrayLevels> arrays_;
  absl::flat_hash_map<uint32_t, ProfileLevels> profiles_;
  // A key, in the entry of its first update, and the batch of its latest.
  struct KeyLevel {
    const Entry* entry = nullptr;
    size_t hash = 0;
    uint32_t level = 0;
  };
  // Places in a list of keys. The set is small that way, and stays close to the processor.
  struct HashOfPlace {
    const std::vector<KeyLevel>& keys;
    size_t operator()(uint32_t place) const { return keys[place].hash; }
  };
  struct SameKey {
    const std::vector<KeyLevel>& keys;
    bool operator()(uint32_t a, uint32_t b) const {
      return keys[a].hash == keys[b].hash && keys[a].entry->key() == keys[b].entry->key();
    }
  };
  std::vector<KeyLevel> levels_;
  absl::flat_hash_set<uint32_t, HashOfPlace, SameKey> places_{0, HashOfPlace{levels_},
                                                              SameKey{levels_}};
  absl::flat_hash_map<const Entry*, KeyHistory> keys_;  // by the entry in levels_
};

}  // namespace pi::fe::proto
