#include "runtime/base/expand_environment.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/win32.h"
#include "support/names.h"

namespace kestrun {
namespace {

TEST(ExpandEnvironment, ReplacesWhatIsDefinedAndKeepsTheRest) {
  const std::string name = test::UniqueName("KESTRUN_TEST");
  SetEnvironmentVariableA(name.c_str(), "value");
  EXPECT_EQ(ExpandEnvironment("<%" + name + "%|%" + name + "_none%|100%>"), "<value|%" + name + "_none%|100%>");
  // What stands between two percent signs is a reference, whatever it was meant to be; a value is none.
  EXPECT_EQ(ExpandEnvironment("100% %" + name + "%"), "100% %" + name + "%");
  SetEnvironmentVariableA(name.c_str(), "v%x");
  EXPECT_EQ(ExpandEnvironment("%" + name + "% %" + name + "%"), "v%x v%x");
  SetEnvironmentVariableA(name.c_str(), std::string(3000, 'x').c_str());
  const std::string tooLong = "%" + name + "%%" + name + "%";
  EXPECT_EQ(ExpandEnvironment(tooLong), tooLong);
}

}  // namespace
}  // namespace kestrun
