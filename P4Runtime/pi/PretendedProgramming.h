// Fault injection for tests of controllers: reports in place of the forwarding plane.
#pragma once

#include "P4Runtime/companion/BatchStatus.h"

namespace P4Runtime {

// Completes the entries of the batch as its settings say; by default does nothing. Call with the
// activity lock held. Asserts that no offset both fails and times out.
void maybePretendHwProgramming(BatchStatus& batchStatus);

}  // namespace P4Runtime
