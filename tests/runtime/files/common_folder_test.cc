#include "runtime/files/common_folder.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/win32.h"
#include "runtime/base/environment.h"

namespace kestrun {
namespace {

TEST(CommonFolder, FollowsItsVariable) {
  std::string saved;
  GetEnvironmentValue("RV_COMMON_PATH", saved);
  SetEnvironmentVariableA("RV_COMMON_PATH", "D:\\C");
  EXPECT_EQ(GetCommonPath().ToString(), "D:\\C\\DORN\\");
  EXPECT_EQ((GetCommonPath() / "Zelvo.ini").ToString(), "D:\\C\\DORN\\Zelvo.ini");
  SetEnvironmentVariableA("RV_COMMON_PATH", nullptr);
  EXPECT_TRUE(GetCommonPath().IsAbsolute());
  EXPECT_NE(GetCommonPath().ToString().find("Ravelin Works"), std::string::npos);
  SetEnvironmentVariableA("RV_COMMON_PATH", saved.empty() ? nullptr : saved.c_str());
}

}  // namespace
}  // namespace kestrun
