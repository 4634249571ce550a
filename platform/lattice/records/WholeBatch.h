// A batch that stands or falls as a whole leaves a record of its changes in the store, by which a
// later writer undoes them when the batch's own was killed before it knew the outcome.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/brine/Store.h"

namespace Lattice {

// Writes the record, as part of the transaction; `changes` ascend. Throws std::length_error for
// more changes than a later writer can undo, Brine::StoreError when there is no room.
void noteWholeBatch(Brine::Store& store, std::span<const uint64_t> changes);
// The ranges of changes, first and last, that its record names.
std::vector<std::pair<uint64_t, uint64_t>> wholeBatchRanges(std::string_view record);

// For a writer that starts, before it commits anything: undoes the batch that has no outcome, and
// commits that. Returns the number of changes that it undid.
size_t undoUnfinishedBatch(Brine::Store& store);

}  // namespace Lattice
