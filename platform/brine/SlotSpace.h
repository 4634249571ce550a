// The writer's slots: extents of pages, cut into slots of one table and size, and the free ones.
#pragma once

#include <cstdint>
#include <map>
#include <utility>
#include <vector>

#include "platform/brine/Layout.h"
#include "platform/brine/StoreFile.h"

namespace Brine {

// Only the writer has one. Which slots are free is known to it alone; the next process finds
// out by a look at all slots. Free extents keep their memory, for later records of any table: a
// follower that lags behind may look into one that has just become free.
class SlotSpace {
 public:
  // Takes the extents up from the file. All slots count as taken, but for those at an extent's end
  // that are free. Throws StoreError{damaged}.
  explicit SlotSpace(StoreFile& file);

  // A free slot of at least `bytes`, head included. Its `begin` and `end` are 0. Throws
  // StoreError{full}.
  Ref allocate(uint32_t table, size_t bytes);
  // The slot, whose `begin` is 0 already, can be allocated again.
  void release(Ref ref);
  // Frees the extents of the table, whatever their slots hold.
  void releaseTable(uint32_t table);
  // Gives the memory of the free extents back to the system. Call when no change that can be
  // followed names a slot there.
  void giveBackMemory();

  // Whether a slot of the table can be there.
  bool isOf(Ref ref, uint32_t table) const {
    const size_t page = size_t{ref} * refUnit / pageSize;
    return page < byPage_.size() && byPage_[page] < extents_.size() &&
           extents_[byPage_[page]].table == table;
  }
  size_t slotSize(Ref ref) const { return extents_[extentOf(ref)].slotSize; }
  uint32_t tableOf(Ref ref) const { return extents_[extentOf(ref)].table; }
  size_t extentCount() const { return extents_.size(); }
  // Visits the slots of the table from `from` on, taken and free, in the order of their places.
  // `visit` returns false to stop; it must neither allocate nor release.
  template <typename Visit>
  void forEachSlot(uint32_t table, Visit visit, Ref from = 0) const;
  std::vector<uint32_t> tables() const;      // that have extents
  size_t mostRecords(uint32_t table) const;  // slots that were ever allocated
  uint64_t pagesUsed() const;

 private:
  struct Extent {
    uint64_t page = 0;
    uint64_t pages = 0;
    uint32_t table = 0;  // 0: free
    uint32_t slotSize = 0;
    uint32_t slots = 0;
    uint32_t fresh = 0;  // slots from here on were never allocated
    uint32_t taken = 0;
    Ref firstFree = 0;    // free slots form a list, by their second word
    bool listed = false;  // among those with free slots
    // Of a free extent: the size for which all its slots are free already; 0: none.
    uint32_t cleanFor = 0;
  };
  using Class = std::pair<uint32_t, uint32_t>;  // table, slot size
  struct ClassState {
    std::vector<uint32_t> extents;   // all of them
    std::vector<uint32_t> withFree;  // the last one is taken from
    size_t freeSlots = 0;
  };

  uint32_t extentOf(Ref ref) const { return byPage_[size_t{ref} * refUnit / pageSize]; }
  Ref refOf(const Extent& extent, uint32_t slot) const {
    const size_t at = extent.page * pageSize + sizeof(ExtentHead) + size_t{slot} * extent.slotSize;
    return static_cast<Ref>(at / refUnit);
  }
  uint32_t newExtent(uint32_t table, size_t slotSize);
  void takeUp(uint64_t page);
  using Spare = std::multimap<uint64_t, uint32_t>;  // by their pages
  uint32_t extentOfSize(uint64_t pages, size_t slotSize);
  uint32_t freeExtent(Spare::const_iterator found, size_t slotSize);       // noExtent: none was
  uint32_t givenBackExtent(Spare::const_iterator found, size_t slotSize);  // found
  uint32_t appendedExtent(uint64_t pages);
  void clean(const Extent& extent);
  void useIs(uint32_t index, uint32_t table, uint32_t slotSize);
  void enterUse(uint32_t index, uint32_t table, uint32_t slotSize);
  void maybeLetGo(uint32_t index);
  void letGo(uint32_t index);

  StoreFile& file_;
  std::vector<Extent> extents_;
  std::vector<uint32_t> byPage_;  // the extent of each page
  std::map<Class, ClassState> classes_;
  Spare free_;       // with their memory
  Spare givenBack_;  // without that of all pages but the first
};

template <typename Visit>
void SlotSpace::forEachSlot(uint32_t table, Visit visit, Ref from) const {
  for (const Extent& extent : extents_) {
    const bool isBefore = (extent.page + extent.pages) * pageSize <= size_t{from} * refUnit;
    if (extent.table != table || isBefore) continue;
    for (uint32_t slot = 0; slot < extent.fresh; ++slot) {
      const Ref ref = refOf(extent, slot);
      if (ref >= from && !visit(ref)) return;
    }
  }
}

}  // namespace Brine
