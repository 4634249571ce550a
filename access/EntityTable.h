// The decisions of a policy on all objects of a pipeline, made in advance for one caller.
#pragma once

#include <absl/container/flat_hash_map.h>

#include <cstdint>
#include <span>

#include "access/Policy.h"

namespace Access {

// Constant once it is made; any thread.
class EntityTable {
 public:
  // Takes each object for which `decide` allows the operation. Calls it twice an object.
  template <typename Decide>
  EntityTable(std::span<const Object> objects, Decide decide) {
    byId_.reserve(objects.size());
    const auto bitsOf = [&](const Object& object) {
      Operations bits = 0;
      for (const Operation operation : {Operation::read, Operation::write}) {
        if (decide(operation, object)) bits |= bitOf(operation);
      }
      return bits;
    };
    for (const Object& object : objects) byId_[object.id] = bitsOf(object);
    multicastGroups_ = bitsOf(replicationObject(multicastGroups));
    cloneSessions_ = bitsOf(replicationObject(cloneSessions));
  }

  // An id that is not in the P4Info passes: the request is refused for that.
  bool takes(Operation operation, uint32_t id) const {
    const auto found = byId_.find(id);
    return found == byId_.end() || (found->second & bitOf(operation)) != 0;
  }
  bool takesMulticastGroups(Operation operation) const {
    return (multicastGroups_ & bitOf(operation)) != 0;
  }
  bool takesCloneSessions(Operation operation) const {
    return (cloneSessions_ & bitOf(operation)) != 0;
  }

 private:
  absl::flat_hash_map<uint32_t, Operations> byId_;
  Operations multicastGroups_ = 0;
  Operations cloneSessions_ = 0;
};

}  // namespace Access
