// What the steps of a restore have in common.
#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>
#include <vector>

#include "P4Runtime/companion/ResourceId.h"
#include "P4Runtime/pi/P4RuntimeException.h"
#include "PI/pi_base.h"

namespace P4Runtime {

// Entry handles are counted up from 1; one beyond this would not leave room to count on.
inline constexpr EntryHandle largestEntryHandle = EntryHandle{1} << 61;

// What came back, and what did not.
struct RestoreCounts {
  size_t entries = 0;
  size_t members = 0;
  size_t groups = 0;
  size_t rows = 0;                    // removed: no entry stands for them
  std::vector<std::string> unusable;  // what it was, and why the pipeline has no place for it
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

// A record is removed only when the pipeline is known to have no place for it. A refusal that may
// pass, or one that is not understood, ends the restore instead, with all records as they were.
inline bool isProofAgainstRecord(const P4RuntimeException& refusal) {
  return refusal.errorCode == ErrorCode::cannotProgram ||
         refusal.errorCode == ErrorCode::invalidAction ||
         refusal.errorCode == ErrorCode::invalidArgument ||
         refusal.errorCode == ErrorCode::alreadyExists ||
         refusal.errorCode == ErrorCode::internalError;  // its type has no room for such a row
}

// Whether the front end has taken an object back. Throws when it takes nothing back now.
inline bool isTakenBack(pi_status_t status) {
  if (status == PI_STATUS_DEV_NOT_ASSIGNED || status == PI_STATUS_INVALID_TABLE_OPERATION) {
    throw std::runtime_error("the P4Runtime server takes nothing back now");
  }
  return status == PI_STATUS_SUCCESS;
}

}  // namespace P4Runtime
