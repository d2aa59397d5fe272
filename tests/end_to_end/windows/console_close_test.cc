// A console window that is closed, or a user who logs off, while a build runs.
#include "dorn_fixture.h"
#include "platform/win32.h"
#include "runtime/base/handle.h"

namespace kestrun::test {
namespace {

// Tells one process of a control event as the system does: by a thread in it that begins where the system's own would.
// System libraries are at the same address in all processes.
void SendControlEvent(unsigned long pid, DWORD event) {
  const UniqueHandle process(OpenProcess(PROCESS_ALL_ACCESS, FALSE, pid));
  void* const routine = reinterpret_cast<void*>(GetProcAddress(GetModuleHandleA("kernelbase.dll"), "CtrlRoutine"));
  ASSERT_NE(routine, nullptr);
  const UniqueHandle thread(CreateRemoteThread(process.Get(), nullptr, 0,
                                               reinterpret_cast<LPTHREAD_START_ROUTINE>(routine),
                                               reinterpret_cast<void*>(std::uintptr_t{event}), 0, nullptr));
  ASSERT_TRUE(thread) << GetLastError();
}

// The build command does not hear of it by itself here, as one would that has closed its console.
TEST_F(Dorn, LeavesNothingBehindWhenItsConsoleIsClosed) {
  EXPECT_EQ(RunDorn({"--settings", "update"}).exitCode, 0);
  for (const DWORD event : {CTRL_CLOSE_EVENT, CTRL_LOGOFF_EVENT, CTRL_SHUTDOWN_EVENT}) {
    RunningBuild build = StartBuild(false);  // Wine tells no leader of a group of a control event
    SendControlEvent(build.dorn.Pid(), event);
    ExpectAllGone(build);
    EXPECT_EQ(build.dorn.Wait(), 129) << event;
  }
}

}  // namespace
}  // namespace kestrun::test
