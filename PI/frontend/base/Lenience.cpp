#include "PI/frontend/base/Lenience.h"

#include <atomic>

#include "PI/frontend/base/ByteString.h"

namespace pi::fe::proto {

namespace {

std::atomic<bool> allowsZeroWeights{false};
std::atomic<bool> readsBothCounts{false};
std::atomic<bool> padsAnswers{false};

}  // namespace

bool zeroWeightsAllowed() { return allowsZeroWeights.load(); }
void zeroWeightsAllowedIs(bool allowed) { allowsZeroWeights.store(allowed); }

bool bothCountsRead() { return readsBothCounts.load(); }
void bothCountsReadIs(bool both) { readsBothCounts.store(both); }

bool answersPadded() { return padsAnswers.load(std::memory_order_relaxed); }
void answersPaddedIs(bool padded) { padsAnswers.store(padded); }

void setAnswer(const uint8_t* data, size_t bytes, std::string* out) {
  if (!answersPadded()) return setShortest(data, bytes, out);
  out->assign(reinterpret_cast<const char*>(data), bytes);
}

}  // namespace pi::fe::proto
