#include "platform/linux/objects/named_object.h"

#include <gtest/gtest.h>

#include "../../scoped_handle.h"
#include "platform/win32.h"
#include "support/names.h"

namespace kestrun::test {
namespace {

TEST(ObjectNames, GlobalAndPlainAreTwoNameSpacesAndLocalIsPlain) {
  const std::string name = UniqueName();
  ScopedHandle plain = CreateEventA(nullptr, FALSE, FALSE, name.c_str());
  EXPECT_FALSE(OpenEventA(EVENT_ALL_ACCESS, FALSE, ("Global\\" + name).c_str()));
  EXPECT_EQ(GetLastError(), DWORD{ERROR_FILE_NOT_FOUND});
  EXPECT_TRUE(ScopedHandle(OpenEventA(EVENT_ALL_ACCESS, FALSE, ("Local\\" + name).c_str())));
}

TEST(ObjectNames, ImpossibleOnesAreRefused) {
  const struct {
    std::string name;
    DWORD error;
  } cases[] = {{"a\\b", ERROR_PATH_NOT_FOUND},
               {"Global\\", ERROR_INVALID_NAME},
               {std::string(261, 'x'), ERROR_FILENAME_EXCED_RANGE}};
  for (const auto& one : cases) {
    EXPECT_FALSE(CreateEventA(nullptr, FALSE, FALSE, one.name.c_str())) << one.name;
    EXPECT_EQ(GetLastError(), one.error) << one.name;
  }
}

}  // namespace
}  // namespace kestrun::test
