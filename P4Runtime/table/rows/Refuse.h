// How an update is refused.
#pragma once

#include <string>

#include "P4Runtime/companion/ErrorCode.h"
#include "P4Runtime/companion/ResourceId.h"

namespace P4Runtime {

// Throws a P4RuntimeException for the current update of the batch. With a handle, the exception's
// handler puts that entry back.
[[noreturn]] void refuse(ErrorCode code, const std::string& message, EntryHandle handle = 0);

// Refuse with texts that are kept for compatibility: the key's text says 2014, and both say "larger
// than" although 1024 bytes are refused already.
void validateKeySize(size_t bytes);
void validateActionSize(size_t bytes);

}  // namespace P4Runtime
