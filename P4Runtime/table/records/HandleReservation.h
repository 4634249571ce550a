// Remembers, across restarts, how far entry handles have been given out. Counts of forwarding
// agents that have ended stand under the handles of their time: no handle may come again, even if
// its entry was deleted long ago.
#pragma once

#include "P4Runtime/companion/HwStatusDir.h"
#include "P4Runtime/companion/P4HandleMgr.h"
#include "platform/brine/Store.h"

namespace P4Runtime {

// Entry handles are counted up from 1; a handle beyond this would leave no room to count on.
inline constexpr EntryHandle largestEntryHandle = EntryHandle{1} << 61;

// Call with the activity lock held; all that is handed in outlives this.
class HandleReservation {
 public:
  // Both pointers may be null: nothing is ever stored, no forwarding agent has ever counted.
  HandleReservation(P4HandleMgr& handles, Brine::Store* store, const HwStatusDir* hwStatus)
      : handles_(handles), store_(store), hwStatus_(hwStatus) {}
  ~HandleReservation() { handles_.reservationHandlerIs(nullptr); }
  HandleReservation(const HandleReservation&) = delete;
  HandleReservation& operator=(const HandleReservation&) = delete;

  // The next handle will be above all that were ever given out, and reservations are stored from
  // now on. A reservation that the store has no room for fails the update with a
  // P4RuntimeException. Call with a store.
  void continueHandles();

 private:
  EntryHandle stored(Brine::TableNumber table) const;  // 0: nothing was stored yet
  EntryHandle handlesOfFormerStores() const;
  void reserve(Brine::TableNumber table, EntryHandle end);

  P4HandleMgr& handles_;
  Brine::Store* const store_;
  const HwStatusDir* const hwStatus_;
};

}  // namespace P4Runtime
