#include "platform/linux/files/file_trust.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "platform/host.h"
#include "platform/win32.h"
#include "support/names.h"

namespace kestrun::test {
namespace {

DWORD ErrorOfOpening(const std::string& name, DWORD access, DWORD flags = 0, DWORD disposition = OPEN_ALWAYS) {
  const HANDLE file = CreateFileA(name.c_str(), access, FILE_SHARE_READ, nullptr, disposition, flags, nullptr);
  if (file == INVALID_HANDLE_VALUE) return GetLastError();
  CloseHandle(file);
  return ERROR_SUCCESS;
}

// Without a process at its other end, and with one.
TEST(FileTrust, AFifoIsNoFileAndKeepsNobodyWaiting) {
  TempFolder folder;
  const std::string fifo = folder.File("fifo");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  for (int i = 0; i < 2; ++i) {
    EXPECT_NE(ErrorOfOpening(fifo, GENERIC_WRITE), ERROR_SUCCESS);
    EXPECT_EQ(ErrorOfOpening(fifo, GENERIC_READ), ERROR_ACCESS_DENIED);
    EXPECT_EQ(platform::OpenRegularFile(fifo), nullptr);
    open(fifo.c_str(), O_RDWR | O_CLOEXEC);
  }
  EXPECT_EQ(platform::WhyNoFile(fifo), "it is no regular file");
  for (const std::string& name : {folder.File("none"), std::string("/dev/null"), folder.Path().string()}) {
    EXPECT_EQ(platform::WhyNoFile(name), "") << name;
  }
  EXPECT_EQ(ErrorOfOpening("/dev/null", GENERIC_WRITE, platform::kRefuseFilesOfOthers), ERROR_SUCCESS);
}

TEST(FileTrust, WhatAnotherUserHasPreparedIsNotWritten) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can make files of another user";
  constexpr uid_t kOther = 65531;
  TempFolder folder;
  const std::string own = folder.Write("own", "x");
  const std::string file = folder.Write("file", "x");
  const std::string link = folder.File("link");
  const std::string dangling = folder.File("dangling");
  const std::string ownLink = folder.File("own link");
  std::filesystem::create_symlink(own, link);
  std::filesystem::create_symlink(own, ownLink);
  std::filesystem::create_symlink(folder.File("none"), dangling);
  for (const std::string& name : {file, link, dangling}) ASSERT_EQ(lchown(name.c_str(), kOther, kOther), 0);
  const struct {
    std::string name;
    DWORD error;
    const char* why;
  } cases[] = {{file, ERROR_ACCESS_DENIED, "it belongs to another user"},
               {link, ERROR_ACCESS_DENIED, "it is a symbolic link of another user"},
               {dangling, ERROR_ACCESS_DENIED, "it is a symbolic link of another user"},
               {own, ERROR_SUCCESS, ""},
               {ownLink, ERROR_SUCCESS, ""},
               {folder.File("new"), ERROR_SUCCESS, ""}};
  for (const auto& c : cases) {
    EXPECT_EQ(ErrorOfOpening(c.name, GENERIC_WRITE, platform::kRefuseFilesOfOthers), c.error) << c.name;
    EXPECT_EQ(platform::WhyOfOthers(c.name), c.why) << c.name;
  }
  EXPECT_EQ(ErrorOfOpening(file, GENERIC_WRITE), ERROR_SUCCESS) << "what reads need not own";
}

}  // namespace
}  // namespace kestrun::test
