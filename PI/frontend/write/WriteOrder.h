// In which of a Write's batches each update runs: independent ones together, in the first; one that
// depends on the outcome of earlier ones in a batch after theirs.
#pragma once

#include <absl/container/flat_hash_set.h>

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

  void reserve(size_t updates) { levels_.reserve(updates); }

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
  // The batch of the latest update of each key. It has the entry of the key's first update.
  struct KeyLevel {
    const Entry* entry = nullptr;
    size_t hash = 0;
    mutable uint32_t level = 0;
  };
  struct KeyLevelHash {
    size_t operator()(const KeyLevel& key) const { return key.hash; }
  };
  struct KeyLevelEqual {
    bool operator()(const KeyLevel& a, const KeyLevel& b) const {
      return a.hash == b.hash && a.entry->key() == b.entry->key();
    }
  };
  absl::flat_hash_set<KeyLevel, KeyLevelHash, KeyLevelEqual> levels_;
  absl::flat_hash_map<const Entry*, KeyHistory> keys_;  // by the entry in levels_
};

}  // namespace pi::fe::proto
