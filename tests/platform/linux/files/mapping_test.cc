#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include "../../scoped_handle.h"
#include "platform/win32.h"
#include "support/child.h"
#include "support/names.h"

namespace kestrun::test {
namespace {

// Files may grow to 64 KiB here, so that a region of 128 KiB is one for which there is no room. The first object has
// brought in what all of them need.
KESTRUN_CHILD(HasNoRoom) {
  ScopedHandle event = CreateEventA(nullptr, FALSE, FALSE, "event");
  signal(SIGXFSZ, SIG_IGN);
  const rlimit limit{65536, 65536};
  setrlimit(RLIMIT_FSIZE, &limit);
  for (const char* name : {words[0].c_str(), static_cast<const char*>(nullptr)}) {
    if (CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 0x20000, name)) return 1;
    if (GetLastError() != ERROR_DISK_FULL) return 2;
  }
  ScopedHandle smaller = CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 4096, words[0].c_str());
  return smaller && GetLastError() == ERROR_SUCCESS ? 0 : 3;
}

TEST(Mapping, WithoutRoomIsAnErrorAndLeavesNothing) {
  EXPECT_EQ(Child::Self("HasNoRoom", {UniqueName()}).Wait(), 0);
}

}  // namespace
}  // namespace kestrun::test
