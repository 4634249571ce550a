// Counts of flows, by the flow's name: each forwarding agent writes a collection of its own into
// the state directory, and any process reads them all.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace Lattice {

// The name of the flow that an entry is programmed as. The P4Runtime agent's entries are counted
// under this name followed by "-p4rt": see flowCounterName().
std::string buildFlowName(uint64_t entryHandle);
std::string flowCounterName(uint64_t entryHandle);
// The name of a cell of a counter that the program declares: its id in the P4Info, and the index.
std::string cellCounterName(uint32_t counterId, uint64_t index);

struct FlowCount {
  uint64_t bytes = 0;
  uint64_t packets = 0;
  friend bool operator==(const FlowCount&, const FlowCount&) = default;
};

// A forwarding agent's side. One thread uses it.
class FlowCounterWriter {
 public:
  // `forwarderName` is the one the forwarding agent follows the tables under; a second writer of
  // that name is refused. The counts of an earlier process of that name are dropped: its counters
  // ended with it. Makes the state directory when it is not there. A name has 1 to 64 bytes. Throws
  // Brine::StoreError.
  static std::unique_ptr<FlowCounterWriter> create(const std::string& stateDirectory,
                                                   const std::string& forwarderName);
  virtual ~FlowCounterWriter() = default;

  // Names have 1 to 500 bytes; else std::invalid_argument.
  virtual void countIs(std::string_view name,
                       const FlowCount& total) = 0;  // since the flow was made
  virtual void countDel(std::string_view name) = 0;
  // Makes the counts visible to readers, each by itself: a reader sees a count as it was or as it
  // is, never half of it, but may see some of a commit before the others. A process that is killed
  // meanwhile leaves each count as it was or as it is, too. Throws Brine::StoreError when the state
  // directory is full; counts set since the commit before are then lost.
  virtual void commit() = 0;
  // False once the file of the counts was removed or replaced, be it with the state directory:
  // nobody reads these counts any more. Create another writer then, when this one is gone.
  virtual bool reachable() const = 0;
};

// Reads the newest committed counts of all forwarding agents of a state directory. One thread uses
// it. Collections that come, go or are damaged are no error.
class FlowCounterReader {
 public:
  static std::unique_ptr<FlowCounterReader> create(const std::string& stateDirectory);
  virtual ~FlowCounterReader() = default;

  // Replaces the contents of *out: one count for each forwarding agent that has the name.
  virtual void counts(std::string_view name, std::vector<FlowCount>* out) = 0;
  virtual bool empty() = 0;  // there are no counts of any forwarding agent
};

}  // namespace Lattice
