// How many pages a commit can come to need.
#pragma once

#include <lmdb.h>

#include <cstdint>
#include <span>

#include "platform/brine/Environment.h"
#include "platform/brine/WriteSet.h"

namespace Brine {

// Adds to `room` the most pages that the writes to one table take. `order`: the indices of the
// table's records in `writes`. `tree` is the table's.
void addRoomFor(const MDB_stat& tree, WriteSet& writes, std::span<const uint32_t> order,
                size_t pageSize, Room* room);

// The pages that a commit of so many leaves for later ones.
uint64_t pagesLeft(Filling filling, uint64_t pages);

}  // namespace Brine
