// The entries of the former pipeline while another one comes up.
#pragma once

#include <cstdint>

namespace P4Runtime {

// Entries that do not belong to the next pipeline stay until its tables stand; should these fail,
// the former pipeline finds the entries again. On the reactor, with the activity lock held.
class FormerEntries {
 public:
  virtual ~FormerEntries() = default;
  // Whether they belong to the push of that number.
  virtual bool areOf(uint64_t push) const = 0;
  // Before the next pipeline's tables are bound: from here on the rows of tables that it does not
  // have are kept in memory.
  virtual void setAside() = 0;
  // Its tables are bound and need no more room. All entries go, and those to come belong to that
  // push. Throws when the store cannot: the entries are then as they were, or go the next time.
  virtual void forget(uint64_t push) = 0;
  // The former pipeline's tables are bound once more: puts back the rows set aside. Nothing when
  // there are none. Throws when the store cannot.
  virtual void putBack() = 0;
};

}  // namespace P4Runtime
