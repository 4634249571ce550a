// The interfaces through which a batch is settled: the tables that it has written, and the server
// whose device it was.
#pragma once

#include <cstddef>
#include <cstdint>

#include "P4Runtime/companion/ResourceId.h"
#include "platform/vela/Entity.h"

namespace P4Runtime {

// The entries that batches write; the table implementation. Call with the activity lock held.
class BatchEntries : public Vela::Entity {
 public:
  using Entity::Entity;

  virtual void assignDevice(uint64_t deviceId) = 0;
  virtual void clearPendingOperations() = 0;
  virtual size_t numPendingEntries() const = 0;  // that wait for the forwarding agents
  // The outcome of the entry's programming; `abort`: it failed, and is undone. An undoing that
  // cannot be stored brings the critical state.
  virtual void updateCachedEntryState(EntryHandle handle, bool abort) = 0;
  // Each entry of the batch was programmed.
  virtual void updateAllCachedEntryStates() = 0;
  virtual void restoreTableEntryOnFailure(EntryHandle handle) = 0;
  // Before the batch in progress ends: it stands or falls as a whole, even if this process ends
  // before the outcome is known. Throws std::exception when that cannot be stored.
  virtual void batchIsWhole() = 0;
  // The last change of a row that undoing an operation of this batch has made; 0: there was none.
  virtual uint64_t lastPutBack() const = 0;
  // Whether entries were put back outside a batch, and the store has yet to commit them.
  virtual bool anyPutBack() const = 0;
  virtual void commitPutBack() = 0;
  // The PI library may know other entries than the store; nothing is written until a restore has
  // succeeded.
  virtual void restoreNeededIs(bool needed) = 0;
};

// The server that the entries are written for.
class DeviceServer : public Vela::Entity {
 public:
  using Entity::Entity;
  virtual uint32_t deviceId() const = 0;  // 0 without a configuration
};

}  // namespace P4Runtime
