// The entries of a Write that stands or falls as a whole, as its later updates see them: they count
// from update to update, and are taken back unless the Write stands.
#pragma once

#include <vector>

#include "PI/frontend/check/CheckedUpdate.h"
#include "PI/frontend/store/EntryStore.h"
#include "PI/frontend/store/ProfileUse.h"

namespace pi::fe::proto {

// For the Write in progress, which has kept nothing else in the store. Reads see none of it until
// commit().
class TentativeEntries {
 public:
  TentativeEntries(EntryStore& store, ProfileUse& use) : store_(store), use_(use) {}
  ~TentativeEntries();
  TentativeEntries(const TentativeEntries&) = delete;
  TentativeEntries& operator=(const TentativeEntries&) = delete;

  void enter(const CheckedUpdate& update);
  void commit();  // the Write stands; ends the process when there is no memory for that

 private:
  struct Counted {
    const ProfilePlan* profile;
    EntryPtr former;  // either may be null
    EntryPtr now;
  };

  EntryStore& store_;
  ProfileUse& use_;
  std::vector<Counted> counted_;
  bool stands_ = false;
};

}  // namespace pi::fe::proto
