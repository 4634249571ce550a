#include "platform/brine/SlotSpace.h"

#include <algorithm>
#include <bit>

namespace Brine {
namespace {

constexpr uint32_t noExtent = UINT32_MAX;
constexpr uint64_t mostPages = 256;  // of an extent with several slots
constexpr uint32_t largestUnits = UINT16_MAX;

// A record may outgrow its slot by little, and a slot be larger than its record by an eighth.
size_t slotSizeFor(size_t bytes) {
  const size_t grain = bytes <= 512 ? refUnit : std::bit_floor(bytes) / 8;
  return (bytes + grain - 1) / grain * grain;
}

uint64_t pagesToHold(size_t slotSize) {
  return (sizeof(ExtentHead) + slotSize + pageSize - 1) / pageSize;
}

bool fillsExtent(size_t slotSize) {
  return slotSize / refUnit > largestUnits || pagesToHold(slotSize) > mostPages / 8;
}

size_t onlySlotSize(uint64_t pages) { return pages * pageSize - sizeof(ExtentHead); }

// The first extents of a kind are small, so that a table with few records takes little.
uint64_t pagesFor(size_t extents, size_t slotSize) {
  const uint64_t wanted = uint64_t{1} << std::min<size_t>(extents, 8);
  return std::max(std::min(wanted, mostPages), pagesToHold(slotSize));
}

}  // namespace

SlotSpace::SlotSpace(StoreFile& file) : file_(file) {
  const uint64_t end = file.word(CommitWord::end);
  byPage_.resize(end, noExtent);
  for (uint64_t page = firstExtentPage(file.head().changes); page < end;) {
    takeUp(page);
    page += extents_.back().pages;
    if (page > end) damaged(file.directory(), "an extent runs over its end");
  }
}

void SlotSpace::takeUp(uint64_t page) {
  const ExtentHead& head = file_.extent(page);
  const uint64_t pages = load(head.pages), use = load(head.use);
  const bool isSound = isStamped(pages, page) && isStamped(use, page + 1) && numberIn(pages) > 0 &&
                       numberIn(pages) <= byPage_.size() - page;
  if (!isSound) damaged(file_.directory(), "extent at page " + std::to_string(page));
  const auto index = static_cast<uint32_t>(extents_.size());
  extents_.push_back({.page = page, .pages = numberIn(pages)});
  std::fill_n(byPage_.begin() + static_cast<ptrdiff_t>(page), numberIn(pages), index);
  const auto table = static_cast<uint32_t>(numberIn(use) >> 16);
  const auto units = static_cast<uint32_t>(numberIn(use) & largestUnits);
  Extent& extent = extents_.back();
  if (table == 0) return void(free_.emplace(extent.pages, index));
  const size_t slotSize = units == 0 ? onlySlotSize(extent.pages) : units * refUnit;
  if (slotSize < SlotHead::size || slotSize > onlySlotSize(extent.pages)) {
    damaged(file_.directory(), "slots at page " + std::to_string(page));
  }
  enterUse(index, table, static_cast<uint32_t>(slotSize));
  extent.fresh = extent.slots;
  while (extent.fresh > 0 && load(file_.slot(refOf(extent, extent.fresh - 1)).begin) == 0) {
    --extent.fresh;
  }
  extent.taken = extent.fresh;
  classes_[{table, extent.slotSize}].freeSlots -= extent.fresh;
}

void SlotSpace::enterUse(uint32_t index, uint32_t table, uint32_t slotSize) {
  Extent& extent = extents_[index];
  extent.table = table;
  extent.slotSize = slotSize;
  extent.slots = static_cast<uint32_t>(slotsIn(extent.pages, slotSize));
  extent.fresh = extent.taken = 0;
  extent.firstFree = 0;
  extent.listed = true;
  ClassState& state = classes_[{table, slotSize}];
  state.extents.push_back(index);
  state.withFree.push_back(index);
  state.freeSlots += extent.slots;
}

void SlotSpace::useIs(uint32_t index, uint32_t table, uint32_t slotSize) {
  const Extent& extent = extents_[index];
  const uint64_t units = slotSize == onlySlotSize(extent.pages) ? 0 : slotSize / refUnit;
  store(file_.extent(extent.page).use, stamped(uint64_t{table} << 16 | units, extent.page + 1));
}

Ref SlotSpace::allocate(uint32_t table, size_t bytes) {
  size_t slotSize = slotSizeFor(bytes);
  if (fillsExtent(slotSize)) slotSize = onlySlotSize(pagesToHold(slotSize));
  ClassState& state = classes_[{table, static_cast<uint32_t>(slotSize)}];
  while (!state.withFree.empty()) {
    Extent& extent = extents_[state.withFree.back()];
    if (extent.taken < extent.slots) break;
    extent.listed = false;
    state.withFree.pop_back();
  }
  const uint32_t index =
      state.withFree.empty() ? newExtent(table, slotSize) : state.withFree.back();
  Extent& extent = extents_[index];
  Ref ref = extent.firstFree;
  if (ref != 0) {
    extent.firstFree = static_cast<Ref>(file_.slot(ref).end);
  } else {
    ref = refOf(extent, extent.fresh++);
  }
  ++extent.taken;
  --state.freeSlots;
  file_.slot(ref).end = 0;
  return ref;
}

uint32_t SlotSpace::newExtent(uint32_t table, size_t slotSize) {
  const size_t extents = classes_[{table, static_cast<uint32_t>(slotSize)}].extents.size();
  const uint64_t least = pagesToHold(slotSize);
  uint64_t pages = fillsExtent(slotSize) ? least : pagesFor(extents, slotSize);
  uint32_t index = noExtent;
  while (index == noExtent) {
    try {
      index = extentOfSize(pages, slotSize);
    } catch (const StoreError&) {  // what room is left may do for a smaller one
      if (pages == least && slotSize / refUnit <= largestUnits) {
        index = freeExtent(free_.lower_bound(least), slotSize);
        if (index == noExtent) index = givenBackExtent(givenBack_.lower_bound(least), slotSize);
      }
      if (pages == least && index == noExtent) throw;
      pages = std::max(pages / 2, least);
    }
  }
  useIs(index, table, static_cast<uint32_t>(slotSize));
  enterUse(index, table, static_cast<uint32_t>(slotSize));
  return index;
}

uint32_t SlotSpace::extentOfSize(uint64_t pages, size_t slotSize) {
  uint32_t index = freeExtent(free_.find(pages), slotSize);
  if (index == noExtent) index = givenBackExtent(givenBack_.find(pages), slotSize);
  return index == noExtent ? appendedExtent(pages) : index;
}

uint32_t SlotSpace::freeExtent(Spare::const_iterator found, size_t slotSize) {
  if (found == free_.end()) return noExtent;
  const uint32_t index = found->second;
  const Extent& extent = extents_[index];
  if (extent.cleanFor != slotSize) clean(extent);
  free_.erase(found);
  return index;
}

uint32_t SlotSpace::givenBackExtent(Spare::const_iterator found, size_t slotSize) {
  if (found == givenBack_.end()) return noExtent;
  const Extent& extent = extents_[found->second];
  if (extent.pages > 1) file_.allocatePages(extent.page + 1, extent.pages - 1);
  const auto taken = free_.emplace(extent.pages, found->second);
  givenBack_.erase(found);
  return freeExtent(taken, slotSize);
}

// Of the bytes of former records, which would be taken for slots.
void SlotSpace::clean(const Extent& extent) {
  std::memset(static_cast<void*>(&file_.extent(extent.page) + 1), 0, onlySlotSize(extent.pages));
}

uint32_t SlotSpace::appendedExtent(uint64_t pages) {
  const uint64_t page = byPage_.size();
  file_.freePages(page, pages);  // of an extent that was never entered
  file_.allocatePages(page, pages);
  ExtentHead& head = file_.extent(page);
  store(head.pages, stamped(pages, page));
  store(head.use, stamped(0, page + 1));
  const auto index = static_cast<uint32_t>(extents_.size());
  extents_.push_back({.page = page, .pages = pages});
  byPage_.resize(page + pages, index);
  file_.wordIs(CommitWord::end, page + pages);
  return index;
}

void SlotSpace::release(Ref ref) {
  const uint32_t index = extentOf(ref);
  Extent& extent = extents_[index];
  file_.slot(ref).end = extent.firstFree;
  extent.firstFree = ref;
  --extent.taken;
  ClassState& state = classes_[{extent.table, extent.slotSize}];
  ++state.freeSlots;
  if (!extent.listed) {
    extent.listed = true;
    state.withFree.push_back(index);
  }
  if (extent.taken == 0) maybeLetGo(index);
}

// As many slots stay free elsewhere, so that a table which grows and shrinks by one record does not
// take and free an extent each time.
void SlotSpace::maybeLetGo(uint32_t index) {
  const Extent& extent = extents_[index];
  const ClassState& state = classes_[{extent.table, extent.slotSize}];
  if (state.freeSlots < 2 * size_t{extent.slots}) return;
  letGo(index);
}

void SlotSpace::letGo(uint32_t index) {
  Extent& extent = extents_[index];
  const auto at = classes_.find({extent.table, extent.slotSize});
  ClassState& state = at->second;
  std::erase(state.extents, index);
  if (extent.listed) std::erase(state.withFree, index);
  state.freeSlots -= extent.slots - extent.taken;
  if (state.extents.empty()) classes_.erase(at);
  useIs(index, 0, 0);
  extent.table = 0;
  extent.cleanFor = extent.taken == 0 ? extent.slotSize : 0;
  free_.emplace(extent.pages, index);
}

// The first page keeps the extent's head.
void SlotSpace::giveBackMemory() {
  for (const auto& [pages, index] : free_) {
    Extent& extent = extents_[index];
    extent.cleanFor = 0;
    if (pages > 1) file_.freePages(extent.page + 1, pages - 1);
  }
  givenBack_.merge(free_);
}

void SlotSpace::releaseTable(uint32_t table) {
  std::vector<uint32_t> extents;
  for (auto at = classes_.lower_bound({table, 0}); at != classes_.end() && at->first.first == table;
       ++at) {
    extents.insert(extents.end(), at->second.extents.begin(), at->second.extents.end());
  }
  for (const uint32_t index : extents) letGo(index);
  for (auto at = classes_.lower_bound({table, 0});
       at != classes_.end() && at->first.first == table;) {
    at = classes_.erase(at);
  }
}

std::vector<uint32_t> SlotSpace::tables() const {
  std::vector<uint32_t> tables;
  for (const auto& [kind, state] : classes_) {
    if (tables.empty() || tables.back() != kind.first) tables.push_back(kind.first);
  }
  return tables;
}

size_t SlotSpace::mostRecords(uint32_t table) const {
  size_t slots = 0;
  for (const Extent& extent : extents_) slots += extent.table == table ? extent.fresh : 0;
  return slots;
}

uint64_t SlotSpace::pagesUsed() const {
  uint64_t pages = firstExtentPage(file_.head().changes);
  for (const Extent& extent : extents_) pages += extent.pages;
  for (const auto& [size, index] : givenBack_) pages -= size - 1;
  return pages;
}

}  // namespace Brine
