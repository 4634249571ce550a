// What the steps of a restore have in common.
#pragma once

#include <cstddef>

#include "platform/companion/ResourceId.h"

namespace P4Runtime {

// Entry handles are counted up from 1; one beyond this would not leave room to count on.
inline constexpr EntryHandle largestEntryHandle = EntryHandle{1} << 61;

// What came back, and what the pipeline has no place for any more.
struct RestoreCounts {
  size_t entries = 0;
  size_t members = 0;
  size_t groups = 0;
  size_t unusable = 0;
  friend bool operator==(const RestoreCounts&, const RestoreCounts&) = default;
};

// While it lives, what is written needs no verification and no room by the size limits.
class Restoring {
 public:
  explicit Restoring(bool& is) : is_(is) { is_ = true; }
  ~Restoring() { is_ = false; }
  Restoring(const Restoring&) = delete;
  Restoring& operator=(const Restoring&) = delete;

 private:
  bool& is_;
};

}  // namespace P4Runtime
