// Lines on a standard error that takes them, and on one that does not.
#include "platform/vela/ErrorLine.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>

#include "platform/vela/Descriptors.h"

namespace Vela {
namespace {

// Puts another file in the place of standard error.
class StandardErrorIs {
 public:
  explicit StandardErrorIs(int descriptor) { dup2(descriptor, STDERR_FILENO); }
  ~StandardErrorIs() { dup2(former_.get(), STDERR_FILENO); }

 private:
  const UniqueFd former_{dup(STDERR_FILENO)};
};

TEST(TellError, WritesOneLine) {
  testing::internal::CaptureStderr();
  tellError("table {} has {} rows", "ipv4_route", 7);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "korvel: table ipv4_route has 7 rows\n");
}

// The agent's log was on a disk that became full: a message of a thread without a handler for
// exceptions ended the agent.
TEST(TellError, LosesTheLineThatTheDiskHasNoRoomFor) {
  const UniqueFd full(open("/dev/full", O_WRONLY | O_CLOEXEC));
  ASSERT_TRUE(full);
  {
    const StandardErrorIs changed(full.get());
    errno = 0;
    tellError("the connection broke");
    EXPECT_EQ(errno, ENOSPC);
  }
  testing::internal::CaptureStderr();
  tellError("there is room again");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "korvel: there is room again\n");
}

}  // namespace
}  // namespace Vela
