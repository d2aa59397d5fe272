#include "platform/linux/process/pipe.h"

#include <gtest/gtest.h>

#include "../../tool_process.h"
#include "platform/win32.h"
#include "support/child.h"

namespace kestrun::test {
namespace {

// Reading ends when the tool has ended, however long a descendant holds its pipes.
TEST(Pipe, OutputIsCompleteAndEndsWithTheTool) {
  const ScopedHandle job = MakeJob();
  Tool tool = StartToolIn(job, "background session hold then fill 3000000 0 print marker");
  const unsigned long descendant = std::stoul(ReadLineFrom(tool.output));
  DWORD end = 0;
  const std::string output = ReadToEnd(tool.output, &end);
  EXPECT_EQ(end, ERROR_BROKEN_PIPE);
  EXPECT_EQ(output.size(), 3000000u + 7u);
  EXPECT_EQ(output.substr(3000000), "marker\n");
  EXPECT_TRUE(ProcessExists(descendant));
}

TEST(Pipe, OutputEndsThoughADescendantNeverStopsWriting) {
  const ScopedHandle job = MakeJob();
  Tool tool = StartProgram("/bin/sh -c \"(while :; do echo chatter; done) & echo marker; exit 1\"", {CREATE_SUSPENDED});
  ASSERT_TRUE(AssignProcessToJobObject(job, tool.process));
  ResumeThread(tool.thread);
  EXPECT_NE(ReadToEnd(tool.output).find("marker\n"), std::string::npos);
  EXPECT_EQ(tool.Wait(), 1u);
}

}  // namespace
}  // namespace kestrun::test
