// Single counts out of another process's file, by system calls alone: the file may be cut off or
// overwritten at any time, and whatever is damaged is passed over.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>

#include "platform/lattice/counters/FlowCountersLayout.h"
#include "platform/vela/Descriptors.h"

namespace Lattice {

// The writer knows nothing of it. One thread uses it.
class FlowCountersLookup {
 public:
  // Null when there is no file of counts, or none that is sound and complete.
  static std::unique_ptr<FlowCountersLookup> open(const std::string& path);

  std::optional<CountsHead> head() const;  // nothing when it is damaged
  std::optional<FlowCount> find(const CountsHead& head, FlowHash hash) const;
  bool hasAnyCount(const CountsHead& head) const;  // reads up to the first one

 private:
  explicit FlowCountersLookup(Vela::UniqueFd file) : file_(std::move(file)) {}
  template <typename Visit>
  void forEachSlot(uint64_t first, uint64_t slots, uint64_t atMost, Visit visit) const;
  size_t read(uint64_t number, std::span<CountSlot> slots) const;
  bool mend(uint64_t number, CountSlot* slot) const;

  const Vela::UniqueFd file_;
};

}  // namespace Lattice
