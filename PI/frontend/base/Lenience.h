// What the front end lets controllers do beyond the letter of P4Runtime. Of the process; any
// thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace pi::fe::proto {

// A member of weight 0 counts as one of weight 1; false unless set.
bool zeroWeightsAllowed();
void zeroWeightsAllowedIs(bool allowed);

// Counters are read with packets and bytes, whatever their unit; false unless set.
bool bothCountsRead();
void bothCountsReadIs(bool both);

// Numbers in answers have all bytes of their widths, not the fewest; false unless set.
bool answersPadded();
void answersPaddedIs(bool padded);

// A number of `bytes` bytes in the form of answers.
void setAnswer(const uint8_t* data, size_t bytes, std::string* out);

}  // namespace pi::fe::proto
