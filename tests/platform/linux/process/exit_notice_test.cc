#include "platform/linux/process/exit_notice.h"

#include <gtest/gtest.h>
#include <poll.h>

namespace kestrun::platform {
namespace {

bool IsReadable(int descriptor) {
  pollfd state{descriptor, POLLIN, 0};
  return poll(&state, 1, 0) == 1;
}

TEST(ExitNotice, IsReadableOnceItIsSetWhetherItsDescriptorWasAskedForBeforeOrAfter) {
  ExitNotice before;
  EXPECT_FALSE(IsReadable(before.Descriptor()));
  before.Set();
  EXPECT_TRUE(IsReadable(before.Descriptor()));
  ExitNotice after;
  after.Set();
  EXPECT_TRUE(IsReadable(after.Descriptor()));
}

}  // namespace
}  // namespace kestrun::platform
