#include "P4Runtime/table/rows/Refuse.h"

#include "P4Runtime/pi/P4RuntimeException.h"
#include "PI/pi_extensions.h"

namespace P4Runtime {
namespace {

constexpr size_t sizeLimit = 1024;  // bytes of a key or an action, exclusive

}  // namespace

void refuse(ErrorCode code, const std::string& message, EntryHandle handle) {
  throw P4RuntimeException(message, handle, pi_batch_current_offset(), code);
}

void validateKeySize(size_t bytes) {
  if (bytes < sizeLimit) return;
  refuse(ErrorCode::cannotProgram, "Key size larger than 2014 not supported");
}

void validateActionSize(size_t bytes) {
  if (bytes < sizeLimit) return;
  refuse(ErrorCode::cannotProgram, "Action size larger than 1024 not supported");
}

}  // namespace P4Runtime
