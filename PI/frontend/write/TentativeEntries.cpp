// The entries of a Write that stands or falls as a whole.
#include "PI/frontend/write/TentativeEntries.h"

#include "PI/core/EndProcess.h"

namespace pi::fe::proto {

TentativeEntries::~TentativeEntries() {
  if (stands_) return;
  core::runOrEndProcess([this] {
    for (auto one = counted_.rbegin(); one != counted_.rend(); ++one) {
      use_.countChange(*one->profile, one->now.get(), one->former.get());
    }
    store_.forgetKept();
  });
}

void TentativeEntries::enter(const CheckedUpdate& update) {
  const bool isDelete = update.type == p4::v1::Update::DELETE;
  if (update.profile != nullptr) {
    const Entry* former = store_.committed({update.slot.entry->key(), update.slot.hash});
    counted_.push_back({update.profile, EntryPtr(const_cast<Entry*>(former)),
                        isDelete ? EntryPtr() : update.slot.entry});
    use_.countChange(*update.profile, former, isDelete ? nullptr : update.slot.entry.get());
  }
  std::vector<Change> changes(update.also().begin(), update.also().end());
  changes.push_back({update.slot, isDelete});
  store_.keep(changes);
}

void TentativeEntries::commit() {
  stands_ = true;
  core::runOrEndProcess([this] { store_.commit(); });
}

}  // namespace pi::fe::proto
