// What has changed of the flows' counts since it was last told to readers.
#pragma once

#include <absl/container/flat_hash_map.h>

#include <cstdint>
#include <vector>

#include "forwarder/RowSet.h"

namespace Forwarder {

// One thread uses it.
class FlowBook {
 public:
  struct Change {
    uint64_t entryHandle = 0;
    uint64_t bytes = 0;
    uint64_t packets = 0;
    bool deleted = false;
  };

  void countIs(const RowFlow& flow) {
    changes_[flow.entryHandle] = {flow.entryHandle, flow.bytes, flow.packets, false};
  }
  void countDel(uint64_t entryHandle) { changes_[entryHandle] = {entryHandle, 0, 0, true}; }
  // A change that could not be told; what came since goes before it.
  void changeBack(const Change& change) { changes_.try_emplace(change.entryHandle, change); }

  bool empty() const { return changes_.empty(); }
  size_t size() const { return changes_.size(); }
  std::vector<Change> taken();  // all of them; the book is then empty

 private:
  absl::flat_hash_map<uint64_t, Change> changes_;  // by entry handle
};

}  // namespace Forwarder
