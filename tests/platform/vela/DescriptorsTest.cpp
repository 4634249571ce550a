// Descriptors of a process that has few, or too many.
#include "platform/vela/Descriptors.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/select.h>

#include <system_error>

#include "platform/vela/Exception.h"
#include "tests/support/DescriptorLimit.h"

namespace Vela {
namespace {

using TestSupport::DescriptorLimit;

TEST(Descriptors, AreAskedForBeforeTheyAreMissed) {
  DescriptorLimit limit(40);
  requireDescriptors(20);
  try {
    requireDescriptors(60);
    FAIL() << "more than the limit";
  } catch (const Exception& e) {
    EXPECT_THAT(e.what(), testing::ContainsRegex("needs 60 .* limit of 40; raise the limit"));
  }
  requireDescriptors(20);  // the failed attempt has closed its own
  raiseDescriptorLimit();
  requireDescriptors(60);
}

TEST(Descriptors, EventsThatSelectCannotWaitForAreRefused) {
  EXPECT_GE(selectableEvent("reports").get(), 0);
  DescriptorLimit limit(FD_SETSIZE);
  limit.exhaust();
  EXPECT_THROW(selectableEvent("reports"), std::system_error);
  if (raiseDescriptorLimit() <= FD_SETSIZE) GTEST_SKIP() << "no more than 1024 are permitted";
  try {
    selectableEvent("reports");
    FAIL() << "number " << FD_SETSIZE << " and above do not fit select()";
  } catch (const std::system_error& e) {
    EXPECT_THAT(e.what(), testing::HasSubstr("below 1024 for reports"));
  }
}

}  // namespace
}  // namespace Vela
