// What the front end lets controllers do beyond the letter of P4Runtime. Of the process; any
// thread.
#pragma once

namespace pi::fe::proto {

// A member of weight 0 counts as one of weight 1; false unless set.
bool zeroWeightsAllowed();
void zeroWeightsAllowedIs(bool allowed);

// Counters are read with packets and bytes, whatever their unit; false unless set.
bool bothCountsRead();
void bothCountsReadIs(bool both);

}  // namespace pi::fe::proto
