#include "runtime/base/environment.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

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
  std::string value = "untouched";
  EXPECT_FALSE(GetEnvironmentValue(name, value));
  EXPECT_EQ(value, "untouched");
  // 255 characters are the most that fit without a second look.
  for (const std::size_t length : {1, 255, 256, 257, 5000}) {
    const std::string set(length, 'x');
    ASSERT_TRUE(SetEnvironmentVariableA(name.c_str(), set.c_str()));
    EXPECT_TRUE(GetEnvironmentValue(name, value));
    EXPECT_EQ(value, set);
    EXPECT_EQ(GetEnvironment()[name], set);
  }
  ASSERT_TRUE(SetEnvironmentVariableA(name.c_str(), nullptr));
  EXPECT_FALSE(GetEnvironmentValue(name, value));
}

}  // namespace
}  // namespace kestrun
