// The four pictures of the tables' content, which must agree whenever nothing is being written:
// what a controller reads, the agent's cache records, its rows, and the forwarder's tables.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tests/support/ForwarderProcess.h"
#include "tests/support/Pipeline.h"

namespace TestSupport {

// Key text to value text, both with the table's name; two pictures are equal when these are.
using View = std::map<std::string, std::string>;

// An entry as the agent's PI bytes have it: "table|key bytes|priority" to "action|param bytes".
View viewOfEntries(const Pipeline& pipeline, const std::vector<p4::v1::TableEntry>& entries);

// What stands in the shared memory of one commit.
struct StoredState {
  View caches;  // spelt as viewOfEntries() does
  View rows;    // "table columns" to columns, as a dump shows them
  std::map<uint64_t, std::string> cachedHandles;  // entry handle to the row table's name
  std::map<uint64_t, std::string> rowHandles;
  size_t unstable = 0;               // cache records in another state than stable
  std::vector<std::string> damaged;  // records that do not have their layout
};
StoredState storedState(const Pipeline& pipeline, const std::string& stateDirectory);

// The forwarder's tables, spelt as StoredState::rows. Throws std::runtime_error when it does not
// answer.
View forwarderView(const ForwarderProcess& forwarder);

// "" when they are equal, else the first differing lines, for people.
std::string difference(const std::string& leftName, const View& left, const std::string& rightName,
                       const View& right);

}  // namespace TestSupport
