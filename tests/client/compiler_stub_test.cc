#include "client/compiler_stub.h"

#include <gtest/gtest.h>

#include <regex>

#include "fake_master.h"
#include "platform/host.h"
#include "support/child.h"

namespace kestrun {
namespace {

using test::Child;
using test::FakeMaster;

// Words: the master's id, the tool's path, the arguments.
KESTRUN_CHILD(RunsACompilerStub) {
  platform::SetStandardStreamsBinary();  // as the real process does
  IniFile settings;
  Options options;
  options.id = words[0];
  options.tool = "as typed";
  options.toolArgs = words[2];
  options.project = "from option";
  CompilerStub stub(settings, options, Path(words[1]));
  return stub.Run();
}

class CompilerStubTest : public test::StubTest {
 protected:
  Child Start(const std::string& arguments, test::ChildOptions options = {}) {
    return Child::Self("RunsACompilerStub", {master_.Id(), tool_, arguments}, options);
  }
  // A stub that has sent its request.
  Child StartAndTakeRequest(const std::string& arguments) {
    return TakeFirst([&] { return Start(arguments); });
  }
};

TEST_F(CompilerStubTest, SendsItsInvocationAndHoldsItsSlotToTheEnd) {
  Child child = StartAndTakeRequest("/c \"a b\"");
  EXPECT_EQ(first_->GetType(), MSG_BUILD_REQUEST);
  EXPECT_EQ(test::TextOf(first_, SEG_TOOL), tool_);
  EXPECT_EQ(test::TextOf(first_, SEG_ARGUMENTS), "/c \"a b\"");
  EXPECT_EQ(test::TextOf(first_, SEG_PROJECT), "from option");
  EXPECT_FALSE(master_.HasFreePlace());
  master_.Send(FakeMaster::Result("", "", 0));
  EXPECT_EQ(child.Wait(), 0);
  EXPECT_TRUE(master_.HasFreePlace());
}

TEST_F(CompilerStubTest, EchoesWhatComesAndEndsWithTheFirstExitCode) {
  Child child = StartAndTakeRequest("x");
  master_.Send(FakeMaster::Output("first\n", "e1"));
  EXPECT_EQ(child.ReadLine(), "first");
  master_.Send(FakeMaster::Result("\r\nlast", "e2", 3, true));
  EXPECT_EQ(child.Wait(), 3);
  EXPECT_EQ(child.Output(), "first\n\r\nlast");
  EXPECT_EQ(child.Errors(), "e1e2");
}

TEST_F(CompilerStubTest, ReportsAFailureOfTheMasterInPlaceOfOutput) {
  Child child = StartAndTakeRequest("x");
  master_.Send(FakeMaster::Result("not shown", "why", StubFailureCode));
  EXPECT_EQ(test::LowByte(child.Wait()), 0xFF);
  EXPECT_EQ(child.Output(), "");
  EXPECT_EQ(child.Errors(), "KESTRUN: error: why\n");
}

TEST_F(CompilerStubTest, TakesTheProjectFromTheEnvironmentIfItFits) {
  const struct {
    std::string value;
    std::string project;
    std::string errors;
  } cases[] = {
      {"from env", "from env", ""},
      {std::string(255, 'x'), std::string(255, 'x'), ""},
      {std::string(256, 'x'), "from option", "KESTRUN: warning: KESTRUN_PROJECT is too long, ignored\n"},
  };
  master_.Listen();
  for (const auto& c : cases) {
    test::ChildOptions options;
    options.environment["KESTRUN_PROJECT"] = c.value;
    Child child = Start("x", options);
    master_.Accept();
    EXPECT_EQ(test::TextOf(master_.Receive(), SEG_PROJECT), c.project);
    master_.Send(FakeMaster::Result("", "", 0));
    EXPECT_EQ(child.Wait(), 0);
    EXPECT_EQ(child.Errors(), c.errors);
  }
}

TEST_F(CompilerStubTest, BuildsLocallyWithoutAListener) {
  Child child = Start("print $$I:out , error $$O:err , exit 6 $$Cmore");
  EXPECT_EQ(child.Wait(), 6);
  EXPECT_EQ(child.Output(), "out\n");
  // The number of other instances that run on the machine is not known here.
  EXPECT_EQ(std::regex_replace(child.Errors(), std::regex("currently \\d+ "), "currently N "),
            "There are currently N instances of kestrun.exe running.\n"
            "KESTRUN: error: Could not initiate build request to master\n"
            "KESTRUN: warning: building locally...\n"
            "err\n");
  EXPECT_TRUE(master_.HasFreePlace());
}

TEST_F(CompilerStubTest, BuildsLocallyWhenTheMasterHangsUp) {
  Child child = StartAndTakeRequest("print local , exit 4");
  master_.Send(FakeMaster::Output("shown\n", ""));
  EXPECT_EQ(child.ReadLine(), "shown");
  master_.HangUp();
  EXPECT_EQ(child.Wait(), 4);
  EXPECT_EQ(child.Output(), "shown\nlocal\n");
  EXPECT_EQ(child.Errors(),
            "KESTRUN: error: Error waiting for response from master\nKESTRUN: warning: building locally...\n");
}

TEST_F(CompilerStubTest, BuildsLocallyAfterAMessageThatItDoesNotKnow) {
  Child child = StartAndTakeRequest("exit 4");
  master_.SendType(MSG_PROJECT_COMPLETE);
  EXPECT_EQ(child.Wait(), 4);
  EXPECT_EQ(child.Errors(), "KESTRUN: warning: building locally...\n");
}

}  // namespace
}  // namespace kestrun
