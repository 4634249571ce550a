// The file of a forwarding agent's counts, as its one writer maps it.
#pragma once

#include <cstdint>
#include <string>

#include "platform/lattice/counters/FlowCountersLayout.h"
#include "platform/vela/Descriptors.h"

namespace Lattice {

// The folder of one forwarding agent, locked against other writers.
class CountsFolder {
 public:
  // Makes the folder when it is absent. Throws Brine::StoreError.
  explicit CountsFolder(std::string path);
  const std::string& path() const { return path_; }
  // Of this very folder, even if another one has its path by now.
  int descriptor() const { return folder_.get(); }

 private:
  const std::string path_;
  Vela::UniqueFd folder_;
  Vela::UniqueFd lock_;
};

// Readers find each count as it was or as it is, also when the writer is killed at any instruction.
// One thread uses it.
class FlowCountersFile {
 public:
  // Without counts, and not in its place yet. `folder` outlives it. The memory of all slots is
  // taken at once. Throws Brine::StoreError.
  FlowCountersFile(const CountsFolder& folder, uint64_t slots);
  ~FlowCountersFile();
  FlowCountersFile(const FlowCountersFile&) = delete;
  FlowCountersFile& operator=(const FlowCountersFile&) = delete;

  void takePlace();    // in the folder; throws Brine::StoreError
  void sayReplaced();  // readers then look for the file that took the place
  bool isInPlace() const;

  uint64_t slots() const { return slots_; }
  uint64_t counts() const { return counts_; }
  // For so many counts under new names.
  bool hasRoomFor(uint64_t more) const;
  bool hasCount(FlowHash hash) const { return find(hash).found; }
  void countIs(FlowHash hash, const FlowCount& count);  // hasRoomFor() it
  void countDel(FlowHash hash);
  void copyCountsTo(FlowCountersFile& other) const;

 private:
  struct Place {
    uint64_t number = 0;
    bool found = false;  // else the slot is the one to put the name in
  };
  Place find(FlowHash hash) const;
  void write(uint64_t number, CountSlot slot);
  uint64_t after(uint64_t number) const { return (number + 1) & (slots_ - 1); }
  uint64_t before(uint64_t number) const { return (number - 1) & (slots_ - 1); }
  CountsHead& head() const { return *reinterpret_cast<CountsHead*>(base_); }
  CountSlot& slot(uint64_t number) const { return array_[number]; }
  size_t bytes() const { return slotOffset(slots_); }

  const CountsFolder& folder_;
  const uint64_t slots_;
  const Vela::UniqueFd file_;
  uint8_t* const base_;
  CountSlot* const array_;
  uint64_t counts_ = 0;
  uint64_t deleted_ = 0;  // slots
};

// Readers of the file that was in the folder before look for the one that is there now.
void sayReplaced(int formerFile);

}  // namespace Lattice
