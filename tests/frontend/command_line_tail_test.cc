#include "frontend/command_line_tail.h"

#include <gtest/gtest.h>

namespace kestrun {
namespace {

TEST(CommandLineTail, IsWhatStandsBehindTheProgramName) {
  const struct {
    const char* commandLine;
    const char* tail;
  } cases[] = {
      {"", ""},
      {"kestrun", ""},
      {"kestrun ", ""},
      {"kestrun  ", " "},
      {"kestrun cl  \"a b\" ", "cl  \"a b\" "},
      {"kestrun\tcl a", "a"},  // only a blank ends the name
      {"\"c:\\my tools\\kestrun.exe\" cl", "cl"},
      {"\"c:\\my tools\\kestrun.exe\"xcl", "cl"},  // the separator goes unread
      {"\"kestrun\"", ""},
      {"\"kestrun\" ", ""},
      {"\"kestrun cl", ""},
      {"\"", ""},
      {"\"\" cl", "cl"},
  };
  for (const auto& c : cases) EXPECT_EQ(GetCommandLineTail(c.commandLine), c.tail) << c.commandLine;
}

}  // namespace
}  // namespace kestrun
