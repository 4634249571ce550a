// The entries of one table in pages, which snapshots share with the store.
#include "PI/frontend/store/EntryPages.h"

#include <utility>

namespace pi::fe::proto {

void EntryPages::add(const Snapshots& snapshots, EntryPtr entry) {
  if (free_.empty()) {
    entry->position = end_++;
  } else {
    entry->position = free_.back();
    free_.pop_back();
  }
  const uint32_t position = entry->position;
  writable(snapshots, position) = std::move(entry);
}

EntryPtr EntryPages::replace(const Snapshots& snapshots, const Entry& former, EntryPtr entry) {
  entry->position = former.position;
  return std::exchange(writable(snapshots, former.position), std::move(entry));
}

EntryPtr EntryPages::remove(const Snapshots& snapshots, const Entry& entry) {
  free_.push_back(entry.position);
  return std::exchange(writable(snapshots, entry.position), EntryPtr());
}

void EntryPages::load(uint32_t position) const {
  const uint32_t number = position / kPageEntries;
  if (number >= list_->pages.size()) return;
  __builtin_prefetch(&list_->pages[number]->entries[position % kPageEntries]);
}

EntryPtr& EntryPages::writable(const Snapshots& snapshots, uint32_t position) {
  List& list = writableList(snapshots);
  const uint32_t number = position / kPageEntries;
  if (number == list.pages.size()) {
    list.pages.push_back(std::make_shared<Page>());
    list.pages.back()->stamp = snapshots.latest;
  }
  std::shared_ptr<Page>& page = list.pages[number];
  if (snapshots.newestAlive > page->stamp) {
    page = std::make_shared<Page>(*page);
    page->stamp = snapshots.latest;
  }
  return page->entries[position % kPageEntries];
}

EntryPages::List& EntryPages::writableList(const Snapshots& snapshots) {
  if (snapshots.newestAlive > list_->stamp) {
    list_ = std::make_shared<List>(*list_);
    list_->stamp = snapshots.latest;
  }
  return *list_;
}

}  // namespace pi::fe::proto
