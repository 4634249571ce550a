#include "platform/brine/CommitRoom.h"

#include <algorithm>

namespace Brine {
namespace {

// An undo writes the same records again, and may come to need as many pages; the commit itself
// takes less than half of those it may come to need.
uint64_t pagesToUndo(uint64_t pages) { return pages / 2 + 16; }

// A few deletions, whose pages the next commits can use.
constexpr uint64_t pagesToDelete = 96;

}  // namespace

// A copy of each page that the writes reach, and the pages that splits add. A page that was split
// has room for a quarter page of small records before it splits again; each large record may split
// one of its own.
void addRoomFor(const MDB_stat& tree, WriteSet& writes, std::span<const uint32_t> order,
                size_t pageSize, Room* room) {
  uint64_t small = 0, large = 0, overflow = 0;
  for (const uint32_t index : order) {
    const PendingRecord& record = writes.record(index);
    const uint64_t size = 32 + uint64_t{record.keySize} * 2 + record.valueSize;
    if (size <= pageSize / 8) {
      small += size;
    } else {
      ++large;
      if (size > pageSize / 4) overflow += 1 + size / pageSize;
    }
  }
  const uint64_t records = order.size();
  const uint64_t depth = tree.ms_depth + 1;
  const uint64_t leaves = std::min<uint64_t>(records, tree.ms_leaf_pages);
  const uint64_t branches = std::min<uint64_t>(records * depth, tree.ms_branch_pages);
  const uint64_t splits = std::min(2 * records, leaves + 4 * small / pageSize + 2 * large + 1);
  // Splits reach upwards, but each branch page takes several children first.
  room->pages += leaves + branches + splits + splits / 2 + depth;
  room->inARow += overflow;
}

uint64_t pagesLeft(Filling filling, uint64_t pages) {
  switch (filling) {
    case Filling::leaveRoomToDelete:
      return pagesToUndo(pages) + pagesToDelete;
    case Filling::leaveRoomToUndo:
      return pagesToUndo(pages);
    case Filling::takeAll:
      break;
  }
  return 0;
}

}  // namespace Brine
