// Checks an update against the committed entries: whether it may run now, the parts of the former
// entry it keeps, and the member or group it points at.
#pragma once

#include "PI/frontend/check/CheckedUpdate.h"
#include "PI/frontend/store/EntryStore.h"
#include "PI/frontend/store/ProfileUse.h"

namespace pi::fe::proto {

// For one Write.
class StateCheck {
 public:
  StateCheck(const EntryStore& store, const ProfileUse& use) : store_(store), use_(use) {}

  // `former` is the entry under the update's key, or null. Completes the update: the action it
  // keeps of `former`, and the target's handle of the member or group it points at. Throws a
  // Refusal.
  void prepare(CheckedUpdate* update, const Entry* former);

  // The updates prepared before are committed, or failed.
  void handleBatchBegin() { promised_.clear(); }

 private:
  void prepareEntity(CheckedUpdate* update, const Entry* former) const;
  void prepareIdleTimeout(CheckedUpdate* update) const;
  void prepareMember(const CheckedUpdate& update) const;
  void prepareGroup(const CheckedUpdate& update, const Entry* former) const;
  void prepareEntry(CheckedUpdate* update) const;
  void requireUnused(const CheckedUpdate& update) const;
  void requireNoActionSets(const CheckedUpdate& update) const;
  void requireNoObjects(const CheckedUpdate& update) const;
  void requireRoom(const CheckedUpdate& update, const Entry* former);

  const EntryStore& store_;
  const ProfileUse& use_;
  // Profile id to the size that updates of the current batch will take, if they succeed.
  absl::flat_hash_map<uint32_t, uint64_t> promised_;
};

}  // namespace pi::fe::proto
