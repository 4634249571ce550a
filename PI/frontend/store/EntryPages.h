// The entries of one table in pages, which snapshots share with the store: taking one costs a
// pointer, and a change copies a page only when a snapshot can see it.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

#include "PI/frontend/store/Entry.h"

namespace pi::fe::proto {

// Guarded by its owner's lock. A List stays as it is for as long as its snapshot lives.
class EntryPages {
 public:
  static constexpr uint32_t kPageEntries = 128;

  struct Page {
    uint64_t stamp = 0;                          // number of the latest snapshot when it was made
    std::array<EntryPtr, kPageEntries> entries;  // null: free
  };
  struct List {
    uint64_t stamp = 0;
    std::vector<std::shared_ptr<Page>> pages;
  };

  // The number of the latest snapshot, and of the newest one that is still in use.
  struct Snapshots {
    uint64_t latest = 0;
    uint64_t newestAlive = 0;  // 0: none lives
  };

  void add(const Snapshots& snapshots, EntryPtr entry);
  // `entry` takes the place of `former`, which must be in the pages. Returns the former one.
  EntryPtr replace(const Snapshots& snapshots, const Entry& former, EntryPtr entry);
  // Has the processor fetch the place of that position.
  void load(uint32_t position) const;
  EntryPtr remove(const Snapshots& snapshots, const Entry& entry);

  std::shared_ptr<const List> list() const { return list_; }

 private:
  EntryPtr& writable(const Snapshots& snapshots, uint32_t position);
  List& writableList(const Snapshots& snapshots);

  std::shared_ptr<List> list_ = std::make_shared<List>();
  std::vector<uint32_t> free_;  // positions
  uint32_t end_ = 0;            // the first position that was never taken
};

}  // namespace pi::fe::proto
