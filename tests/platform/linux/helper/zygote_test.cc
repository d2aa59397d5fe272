#include <gtest/gtest.h>
#include <signal.h>

#include "../../tool_process.h"
#include "parent_of.h"
#include "platform/win32.h"
#include "support/child.h"

namespace kestrun::test {
namespace {

TEST(Zygote, AKilledZygoteIsReplaced) {
  Tool first = StartTool("print up hold");
  EXPECT_EQ(ReadLineFrom(first.output), "up");
  const pid_t zygote = ParentOf(ParentOf(static_cast<pid_t>(first.pid)));
  kill(zygote, SIGKILL);
  ASSERT_TRUE(ProcessEndsWithin(static_cast<unsigned long>(zygote), 60000));
  Tool second = StartTool("exit 3");
  EXPECT_EQ(second.error, 0u);
  EXPECT_EQ(second.Wait(), 3u);
  EXPECT_NE(ParentOf(ParentOf(static_cast<pid_t>(first.pid))), zygote);
  EXPECT_TRUE(TerminateProcess(first.process, 4));
  EXPECT_EQ(first.Wait(), 4u);
}

TEST(Zygote, AHelperIsNotReachedByItsArgumentsAlone) {
  std::string line = "kestrun-helper --helper-of-a-kestrun-process-4f1c9a";
  STARTUPINFOA startup = {};
  PROCESS_INFORMATION information = {};
  ASSERT_TRUE(CreateProcessA(ProgramPath("").c_str(), line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                             &startup, &information));
  const ScopedHandle process(information.hProcess);
  const ScopedHandle thread(information.hThread);
  EXPECT_EQ(WaitForSingleObject(process, 60000), WAIT_OBJECT_0);
  DWORD code = 0;
  EXPECT_TRUE(GetExitCodeProcess(process, &code));
  EXPECT_EQ(code, 127u);
}

}  // namespace
}  // namespace kestrun::test
