#include "P4Runtime/table/undo/EntryUndo.h"

#include <algorithm>
#include <stdexcept>
#include <string>
#include <utility>

namespace P4Runtime {

void EntryUndo::putBack(EntryHandle handle, const PendingOperation& operation) {
  if (!database_) return;
  if (!database_->inBatch()) ++putBack_;
  const bool vanishes = operation.awaited && operation.isNew;
  std::string text = vanishes ? names_.text(handle) : std::string();
  const uint64_t sequence = undoAll(operation);
  lastPutBack_ = std::max(lastPutBack_, sequence);
  if (vanishes) failures_.undoneIs(handle, std::move(text), sequence);
}

// Undoes the latest change first. Returns the sequence number of the row's change, or 0 without
// one.
uint64_t EntryUndo::undoAll(const PendingOperation& operation) {
  uint64_t made = 0;
  for (auto change = operation.changes.rbegin(); change != operation.changes.rend(); ++change) {
    const uint64_t sequence = database_->undo(*change);
    if (*change == operation.rowChange) made = sequence;
  }
  return made;
}

Vela::Outcome EntryUndo::commit() {
  putBack_ = 0;
  return database_->commit();
}

void EntryUndo::commitOrThrow() {
  if (!database_) return;
  const Vela::Outcome stored = database_->commit();
  if (!stored.ok()) throw std::runtime_error(stored.reason());
}

}  // namespace P4Runtime
