#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>

#include "platform/win32.h"
#include "support/names.h"

namespace kestrun::test {
namespace {

unsigned Mode(const std::string& name) {
  struct stat info {};
  EXPECT_EQ(stat(name.c_str(), &info), 0);
  return info.st_mode & 07777;
}

bool Exists(const std::string& name) {
  return GetFileAttributesA(name.c_str()) != INVALID_FILE_ATTRIBUTES;
}

TEST(Files, WhatIsMadeIsClosedToOtherUsers) {
  TempFolder folder;
  const mode_t mask = umask(0);
  CloseHandle(CreateFileA(folder.File("file").c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr));
  CreateDirectoryA(folder.File("folder").c_str(), nullptr);
  umask(mask);
  EXPECT_EQ(Mode(folder.File("file")), 0600u);
  EXPECT_EQ(Mode(folder.File("folder")), 0700u);
}

TEST(Files, LinksAreFollowedAndRemovedThemselves) {
  TempFolder folder;
  const std::string target = folder.File("folder");
  const std::string link = folder.File("link");
  std::filesystem::create_directory(target);
  std::filesystem::create_directory_symlink(target, link);
  EXPECT_EQ(GetFileAttributesA(link.c_str()), FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT);
  EXPECT_TRUE(RemoveDirectoryA(link.c_str()));
  EXPECT_TRUE(Exists(target));
  std::filesystem::create_symlink(folder.File("nowhere"), link);
  EXPECT_FALSE(Exists(link));
  const HANDLE made = CreateFileA(link.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_ALWAYS, 0, nullptr);
  EXPECT_EQ(made, INVALID_HANDLE_VALUE);
  EXPECT_TRUE(DeleteFileA(link.c_str()));
}

}  // namespace
}  // namespace kestrun::test
