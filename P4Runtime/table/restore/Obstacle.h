// Why a record cannot be restored.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>

#include "P4Runtime/pi/P4RuntimeException.h"
#include "PI/pi_base.h"
#include "platform/lattice/types/TableType.h"

namespace P4Runtime {

// Nothing: the object is back.
using Obstacle = std::optional<std::string>;

// A record is removed only when the pipeline is known to have no place for it. A refusal that may
// pass, or one that is not understood, ends the restore instead, with all records as they were.
inline bool isProofAgainstRecord(const P4RuntimeException& refusal) {
  return refusal.errorCode == ErrorCode::cannotProgram ||
         refusal.errorCode == ErrorCode::invalidAction ||
         refusal.errorCode == ErrorCode::invalidArgument ||
         refusal.errorCode == ErrorCode::alreadyExists ||
         refusal.errorCode == ErrorCode::internalError;  // its type has no room for such a row
}

// Nothing when the front end has taken an object back, as `status` says. Throws when it takes
// nothing back now.
[[nodiscard]] inline Obstacle obstacleOf(pi_status_t status) {
  if (status == PI_STATUS_DEV_NOT_ASSIGNED || status == PI_STATUS_INVALID_TABLE_OPERATION) {
    throw std::runtime_error("the P4Runtime server takes nothing back now");
  }
  if (status == PI_STATUS_SUCCESS) return std::nullopt;
  return "the pipeline does not accept it";
}

// Runs `restore`, which returns an obstacle. A refusal that is a proof against the record is one,
// too; any other is thrown.
template <typename Restore>
[[nodiscard]] Obstacle obstacleTo(Restore restore) {
  try {
    return restore();
  } catch (const P4RuntimeException& e) {
    if (!isProofAgainstRecord(e)) throw;
    return e.what();
  } catch (const Lattice::TypeError& e) {
    return e.what();
  }
}

}  // namespace P4Runtime
