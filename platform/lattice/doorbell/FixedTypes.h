// The forwarding agents for which a table keeps its type as long as it keeps its number.
#pragma once

#include <cstdint>
#include <set>
#include <string>

#include "platform/brine/Store.h"

namespace Lattice {

// Those that do not learn that a table has another type now. Their names stand in the store: they
// may be away and come back, also to another process of the agent's. Call with the activity lock
// held. The store outlives this.
class FixedTypes {
 public:
  explicit FixedTypes(Brine::Store& store);

  // An agent of that name attaches; true: the caller is to commit that. A store without room is no
  // error: until this process ends all types are fixed then.
  bool attachedIs(const std::string& name, bool learnsTypes);
  // Whether no forwarding agent is known that would miss another type.
  bool none() const { return names_.empty() && !others_; }

  // A table has got another type in the commit in progress.
  void retyped();
  // Whether one did after the change with that sequence number.
  bool isRetypedAfter(uint64_t sequence) const;

  void handleDiscarded();  // what was written since the last commit is lost

 private:
  bool write(const std::string& key);

  Brine::Store& store_;
  const Brine::TableNumber table_;
  std::set<std::string> names_;
  bool others_ = false;  // more than have room here
};

}  // namespace Lattice
