#include "platform/linux/process/program_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>

#include "../../tool_process.h"
#include "platform/win32.h"
#include "support/names.h"

namespace kestrun::test {
namespace {

TEST(ProgramFile, FilesThatCantBeRunAreToldFromOneAnother) {
  const TempFolder folder;
  const auto errorOf = [&](const char* text, mode_t mode) {
    const std::string name = folder.Write("file", text);
    chmod(name.c_str(), mode);
    const Tool tool = StartProgram(name);
    // While it is being started the file can't be written anew.
    if (tool.error == ERROR_SUCCESS) tool.Wait();
    return tool.error;
  };
  EXPECT_EQ(errorOf("#!/bin/sh\nexit 0\n", 0700), ERROR_SUCCESS);
  EXPECT_EQ(errorOf("#!/bin/sh\n", 0600), ERROR_ACCESS_DENIED);
  EXPECT_EQ(errorOf("#! /no/such/interpreter -x\n", 0700), ERROR_PATH_NOT_FOUND);
  EXPECT_EQ(errorOf("#!/bin/no_such_interpreter\n", 0700), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(errorOf("echo no first line\n", 0700), ERROR_BAD_EXE_FORMAT);
  EXPECT_EQ(errorOf("", 0700), ERROR_BAD_EXE_FORMAT);
  EXPECT_EQ(StartProgram(folder.Path().string()).error, ERROR_ACCESS_DENIED);
  EXPECT_EQ(StartProgram(folder.File("file") + "/below").error, ERROR_PATH_NOT_FOUND);
  EXPECT_EQ(StartProgram(folder.File("missing/program")).error, ERROR_PATH_NOT_FOUND);
  ToolSettings settings;
  const std::string missing = folder.File("missing");
  settings.workingDirectory = missing.c_str();
  EXPECT_EQ(StartTool("print x", settings).error, ERROR_DIRECTORY);
}

TEST(ProgramFile, TooLongArgumentsAreRefusedAndLongOnesArrive) {
  EXPECT_EQ(StartTool("args " + std::string(128 * 1024, 'x')).error, ERROR_FILENAME_EXCED_RANGE);
  std::string words;
  while (words.size() < 700 * 1024) words += " " + std::string(60000, 'y');
  const Tool tool = StartTool("args" + words);
  ASSERT_EQ(tool.error, 0u);
  const std::string output = ReadToEnd(tool.output);
  EXPECT_EQ(static_cast<std::size_t>(std::count(output.begin(), output.end(), 'y')), 12u * 60000u);
  while (words.size() < 7 * 1024 * 1024) words += words;
  EXPECT_EQ(StartTool("args" + words).error, ERROR_FILENAME_EXCED_RANGE);
}

TEST(ProgramFile, ANameEndingInExeMeansTheFileWithoutIt) {
  Tool tool = StartProgram("\\bin\\sh.exe -c \"exit 9\"");
  ASSERT_EQ(tool.error, 0u);
  EXPECT_EQ(tool.Wait(), 9u);
}

}  // namespace
}  // namespace kestrun::test
