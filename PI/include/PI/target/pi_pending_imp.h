// A target's functions that tell the outcome of a batch's updates.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

namespace p4::v1 {
class Error;
}

// Called after _pi_batch_end(). The vector holds one pair (offset in the Write request, error) an
// update, sorted by offset; canonical code 4 means pending. The target waits for the outcome,
// removes successful updates, and writes the error of each failed update.
// NOLINTNEXTLINE(bugprone-reserved-identifier): named like its neighbours in C
void _pi_update_pending_status(std::vector<std::pair<uint32_t, p4::v1::Error>>* statusVector);
