#include "client/job_script.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/child.h"

namespace kestrun {
namespace {

// As echo{tool|arguments} for each job.
std::string Jobs(const std::string& text) {
  std::string shown;
  for (const ScriptJob& job : ParseJobScript(text)) shown += job.echoText + "{" + job.tool + "|" + job.arguments + "}";
  return shown;
}

TEST(JobScript, HoldsNoJobsWithoutJobLines) {
  for (const char* text : {"", "\r\n\n", "# cl a\n;cl b\n \t# c\n", "echo only\n", " \t \n"}) {
    EXPECT_EQ(Jobs(text), "") << text;
  }
}

TEST(JobScript, SplitsAJobLineIntoToolAndArguments) {
  EXPECT_EQ(Jobs("cl"), "{cl|}");
  EXPECT_EQ(Jobs(" \tcl  /c a.c "), "{cl| /c a.c }");
  EXPECT_EQ(Jobs("cl\t/c a"), "{cl\t/c|a}");
  EXPECT_EQ(Jobs("\"c:\\my tools\\cl.exe\" /c a.c"), "{c:\\my tools\\cl.exe| /c a.c}");
  EXPECT_EQ(Jobs("\"c:\\my tools\\cl.exe /c"), "{c:\\my tools\\cl.exe /c|}");
  EXPECT_EQ(Jobs("a 1\r\nb 2\n\n\rc 3"), "{a|1}{b|2}{c|3}");
}

TEST(JobScript, GivesEchoLinesToTheJobBehindThem) {
  EXPECT_EQ(Jobs("echo one\necho two\ncl a\ncl b\necho three"), "one\r\ntwo\r\n{cl|a}{cl|b}");
  EXPECT_EQ(Jobs("echoes x\necho\necho \t y \ncl"), "es x\r\n\r\ny \r\n{cl|}");
  EXPECT_EQ(Jobs("Echo x"), "{Echo|x}");
}

TEST(JobScript, KnowsTheLineInWhichEachJobBegins) {
  const std::vector<ScriptJob> jobs = ParseJobScript("\r\n# c\r\na 1 \\\r\n\r\n  2\r\necho e\n\nb\n  c\\");
  ASSERT_EQ(jobs.size(), 3u);
  EXPECT_EQ(jobs[0].line, 3u);
  EXPECT_EQ(jobs[1].line, 8u);
  EXPECT_EQ(jobs[2].line, 9u);
}

TEST(JobScript, JoinsLinesThatEndInABackslash) {
  EXPECT_EQ(Jobs("cl /c a.c \\\r\n   /Fo:a.obj"), "{cl|/c a.c     /Fo:a.obj}");
  EXPECT_EQ(Jobs("cl a\\\n\n\\\nb"), "{cl|a  b}");
  EXPECT_EQ(Jobs("# note \\\ncl a.c"), "");
  EXPECT_EQ(Jobs("cl a\\"), "{cl|a\\}");
  EXPECT_EQ(Jobs("cl a\\\r\n"), "{cl|a }");
}

// In a process of its own, whose environment holds what is looked up.
KESTRUN_CHILD(ExpandsScriptVariables) {
  for (const std::string& text : words) test::Say(ExpandScriptVariables(text));
  return 0;
}

class ScriptVariables : public testing::Test {
 protected:
  static std::string Expand(const std::string& text) {
    test::ChildOptions options;
    options.environment = {{"KT_CC", "cl"}, {"KT_REF", "%KT_CC%"}, {"KT_UNSET", std::nullopt}};
    return test::Child::Self("ExpandsScriptVariables", {text}, options).ReadLine();
  }
};

TEST_F(ScriptVariables, AreReplacedByTheirValuesOnce) {
  EXPECT_EQ(Expand("%KT_CC% /c %KT_CC%x%KT_REF%y"), "cl /c clx%KT_CC%y");
}

TEST_F(ScriptVariables, StayWhereTheNameIsUnknownAndItsClosingSignOpensNoOther) {
  EXPECT_EQ(Expand("%KT_UNSET%%KT_CC% %KT_UNSET%KT_CC%"), "%KT_UNSET%cl %KT_UNSET%KT_CC%");
  EXPECT_EQ(Expand("%%KT_CC% 5%"), "%%KT_CC% 5%");
}

}  // namespace
}  // namespace kestrun
