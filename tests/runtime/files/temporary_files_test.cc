#include "runtime/files/temporary_files.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "platform/win32.h"
#include "runtime/base/exception.h"
#include "support/expect_throw.h"

namespace kestrun {
namespace {

namespace fs = std::filesystem;

TEST(TemporaryFiles, AreNewAndEmptyAndInTheTemporaryFolder) {
  const std::string first = CreateTempFile(".tst");
  const std::string second = CreateTempFile(".tst");
  EXPECT_NE(first, second);
  EXPECT_EQ(Path(first).GetDirectory(), GetTempDirectory());
  EXPECT_EQ(Path(first).GetLeaf().substr(0, 5), "plovr");
  EXPECT_EQ(first.substr(first.size() - 4), ".tst");
  for (const std::string& file : {first, second}) {
    EXPECT_TRUE(fs::exists(file));
    EXPECT_EQ(fs::file_size(file), 0u);
    fs::remove(file);
  }
}

}  // namespace
}  // namespace kestrun
