#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "platform/win32.h"
#include "support/names.h"

namespace kestrun::test {
namespace {

class Environment : public testing::Test {
 protected:
  ~Environment() override { SetEnvironmentVariableA(name_.c_str(), nullptr); }

  const std::string name_ = UniqueName("KESTRUN_ENVIRONMENT");
};

TEST_F(Environment, GivesAValueThatFitsAndTheSizeOfOneThatDoesNot) {
  char buffer[8] = "before";
  EXPECT_EQ(GetEnvironmentVariableA(name_.c_str(), buffer, sizeof buffer), 0u);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_ENVVAR_NOT_FOUND));
  ASSERT_TRUE(SetEnvironmentVariableA(name_.c_str(), "1234567"));
  EXPECT_EQ(GetEnvironmentVariableA(name_.c_str(), buffer, sizeof buffer), 7u);
  EXPECT_STREQ(buffer, "1234567");
  ASSERT_TRUE(SetEnvironmentVariableA(name_.c_str(), "12345678"));
  EXPECT_EQ(GetEnvironmentVariableA(name_.c_str(), buffer, sizeof buffer), 9u);
  EXPECT_TRUE(SetEnvironmentVariableA(name_.c_str(), nullptr));
  EXPECT_EQ(GetEnvironmentVariableA(name_.c_str(), buffer, sizeof buffer), 0u);
}

TEST_F(Environment, StandsInTheBlock) {
  ASSERT_TRUE(SetEnvironmentVariableA(name_.c_str(), "a=b c"));
  char* const block = GetEnvironmentStrings();
  bool found = false;
  for (const char* entry = block; *entry != '\0'; entry += std::string(entry).size() + 1) {
    found |= entry == name_ + "=a=b c";
  }
  EXPECT_TRUE(found);
  FreeEnvironmentStringsA(block);
}

TEST_F(Environment, ExpandsReferencesToWhatIsSet) {
  ASSERT_TRUE(SetEnvironmentVariableA(name_.c_str(), "v%x"));
  const auto expand = [](const std::string& source) {
    char buffer[256] = {};
    const DWORD size = ExpandEnvironmentStringsA(source.c_str(), buffer, sizeof buffer);
    EXPECT_EQ(size, std::string(buffer).size() + 1);
    return std::string(buffer);
  };
  EXPECT_EQ(expand("<%" + name_ + "%> %NO_SUCH_VARIABLE_HERE% %" + name_ + "%"), "<v%x> %NO_SUCH_VARIABLE_HERE% v%x");
  EXPECT_EQ(expand("100%"), "100%");
  // What stands between two percent signs is a reference, whatever it was meant to be.
  EXPECT_EQ(expand("100% %" + name_ + "%"), "100% %" + name_ + "%");
  char small[10];
  EXPECT_GT(ExpandEnvironmentStringsA("a longer text than fits", small, sizeof small), sizeof small);
}

TEST(ErrorTexts, EndTheirLine) {
  constexpr DWORD kFlags = FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS;
  for (const DWORD error : {ERROR_FILE_NOT_FOUND, ERROR_ACCESS_DENIED, ERROR_BAD_EXE_FORMAT}) {
    char* text = nullptr;
    const DWORD length = FormatMessageA(kFlags, nullptr, error, MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT),
                                        reinterpret_cast<char*>(&text), 0, nullptr);
    ASSERT_GT(length, 2u);
    EXPECT_EQ(std::string(text).substr(length - 2), "\r\n");
    LocalFree(text);
  }
}

TEST(Version, IsReadFromAProgramThatHasOne) {
  char own[1024];
  ASSERT_NE(GetModuleFileNameA(nullptr, own, sizeof own), 0u);
  DWORD unused = 0;
  const DWORD size = GetFileVersionInfoSizeA(own, &unused);
  ASSERT_NE(size, 0u);
  std::string block(size, '\0');
  ASSERT_TRUE(GetFileVersionInfoA(own, 0, size, block.data()));
  void* found = nullptr;
  UINT length = 0;
  ASSERT_TRUE(VerQueryValueA(block.data(), "\\", &found, &length));
  const auto* const info = static_cast<const VS_FIXEDFILEINFO*>(found);
  const DWORD parts[] = {info->dwFileVersionMS >> 16, info->dwFileVersionMS & 0xFFFF, info->dwFileVersionLS >> 16,
                         info->dwFileVersionLS & 0xFFFF};
  std::string text;
  for (const DWORD part : parts) text += (text.empty() ? "" : ".") + std::to_string(part);
  EXPECT_EQ(text, KESTRUN_PROJECT_VERSION);
}

TEST(Version, IsMissedInAFileWithoutOne) {
  const TempFolder folder;
  DWORD unused = 0;
  EXPECT_EQ(GetFileVersionInfoSizeA(folder.Write("text", "no program").c_str(), &unused), 0u);
  EXPECT_EQ(GetFileVersionInfoSizeA(folder
                                        .Write("short",
                                               "\x7f"
                                               "ELF\x02\x01")
                                        .c_str(),
                                    &unused),
            0u);
  EXPECT_EQ(GetFileVersionInfoSizeA(folder.File("missing").c_str(), &unused), 0u);
}

}  // namespace
}  // namespace kestrun::test
