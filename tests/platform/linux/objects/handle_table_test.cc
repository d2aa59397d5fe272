#include "platform/linux/objects/handle_table.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <filesystem>

#include "../../scoped_handle.h"
#include "platform/win32.h"
#include "support/names.h"

namespace kestrun::test {
namespace {

namespace fs = std::filesystem;

TEST(Descriptors, AreAsManyAsTheSystemAllowsAndNoneIsInherited) {
  ScopedHandle event = CreateEventA(nullptr, FALSE, FALSE, UniqueName().c_str());
  rlimit now{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &now), 0);
  EXPECT_EQ(now.rlim_cur, now.rlim_max);
  EXPECT_LE(platform::OriginalDescriptorLimit().rlim_cur, now.rlim_max);
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code error;
    const fs::path target = fs::read_symlink(entry.path(), error);
    if (error || target.string().find("kestrun") == std::string::npos) continue;
    const int fd = std::stoi(entry.path().filename());
    EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC) << target;
  }
}

}  // namespace
}  // namespace kestrun::test
