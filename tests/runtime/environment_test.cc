#include "runtime/environment.h"

#include <gtest/gtest.h>

#include "platform/win32.h"
#include "support/names.h"

namespace kestrun {
namespace {

TEST(Environment, ABlockHoldsTheEntriesInKeyOrder) {
  const std::unique_ptr<char[]> block = BuildEnvironmentBlock({{"b", "2"}, {"B", ""}, {"a", "x=y"}});
  EXPECT_EQ(std::string(block.get(), 14), std::string("B=\0a=x=y\0b=2\0\0", 14));
  EXPECT_EQ(BuildEnvironmentBlock({})[0], '\0');
}

TEST(Environment, ParsingEndsTheKeyAtTheFirstEqualsAndKeepsTheLastOfAKey) {
  Environment environment{{"old", "kept"}};
  ParseEnvironmentBlock("a=1\0noequals\0=C:=C:\\x\0=D:=D:\\y\0a=2=3\0\0", environment);
  EXPECT_EQ(environment, (Environment{{"old", "kept"}, {"a", "2=3"}, {"", "D:=D:\\y"}}));
}

TEST(Environment, TheProcessSeesWhatItSets) {
  const std::string name = test::UniqueName("KESTRUN_TEST");
  const std::string longValue(5000, 'x');
  std::string value = "untouched";
  EXPECT_FALSE(GetEnvironmentValue(name, value));
  EXPECT_EQ(value, "untouched");
  ASSERT_TRUE(SetEnvironmentVariableA(name.c_str(), longValue.c_str()));
  EXPECT_TRUE(GetEnvironmentValue(name, value));
  EXPECT_EQ(value, longValue);
  EXPECT_EQ(GetEnvironment()[name], longValue);
}

}  // namespace
}  // namespace kestrun
