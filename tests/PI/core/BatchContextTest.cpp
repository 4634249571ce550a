#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "PI/pi_extensions.h"

namespace {

std::string currentMetadata() {
  const char* data = nullptr;
  size_t size = 0;
  pi_batch_current_metadata(&data, &size);
  return std::string(data ? data : "", size);
}

TEST(BatchContext, BelongsToTheThreadThatRunsTheBatchAndEndsWithIt) {
  const std::string metadata = "note";
  pi_batch_current_set(7, 42, 0x123456789abcdef0, metadata.data(), metadata.size());
  EXPECT_EQ(pi_batch_current_offset(), 7u);
  EXPECT_EQ(pi_batch_current_controller_id(), 42u);
  EXPECT_EQ(pi_batch_current_controller_metadata(), 0x123456789abcdef0u);
  EXPECT_EQ(currentMetadata(), "note");
  std::thread([] {
    EXPECT_EQ(pi_batch_current_offset(), 0u);
    EXPECT_EQ(currentMetadata(), "");
  }).join();
  pi_batch_current_clear();
  EXPECT_EQ(pi_batch_current_offset(), 0u);
  EXPECT_EQ(pi_batch_current_controller_id(), 0u);
  EXPECT_EQ(pi_batch_current_controller_metadata(), 0u);
  EXPECT_EQ(currentMetadata(), "");
}

}  // namespace
