// How a PI entry point stores what it keeps of an update beside the row.
#pragma once

#include <string_view>

#include "P4Runtime/pi/P4RuntimeException.h"
#include "PI/pi_extensions.h"

namespace P4Runtime {

// What the store has no room for fails the update, whose row is put back.
template <typename Body>
void storing(EntryHandle handle, Body body) {
  try {
    body();
  } catch (const std::exception& e) {
    throw P4RuntimeException(e.what(), handle, pi_batch_current_offset(),
                             ErrorCode::outOfResources);
  }
}

// What the PI library wants kept with what it is writing.
inline std::string_view currentMetadata() {
  const char* metadata = nullptr;
  size_t size = 0;
  pi_batch_current_metadata(&metadata, &size);
  return {metadata, size};
}

}  // namespace P4Runtime
