#include "master/make_flags.h"

#include <gtest/gtest.h>

namespace kestrun {
namespace {

TEST(MakeFlags, LoseTheDescriptorsOfAJobserverAndNothingElse) {
  const struct {
    const char* flags;
    const char* without;
  } cases[] = {
      {"", ""},
      {" -j4 --jobserver-auth=3,4", " "},
      {"kw -j --jobserver-fds=10,11 --no-print-directory", "kw --no-print-directory"},
      {"kw -j4 --no-print-directory", "kw -j4 --no-print-directory"},
      {" -j4x --jobserver-auth=3,4", " -j4x "},
      {" -j4 --jobserver-auth=-2,-2 -- A=b", " -- A=b"},
      {" -j4 --jobserver-auth=fifo:/tmp/GMfifo1,2", " -j4 --jobserver-auth=fifo:/tmp/GMfifo1,2"},
      {" -- F=--jobserver-auth=3,4 --jobserver-auth=3,4", " -- F=--jobserver-auth=3,4 --jobserver-auth=3,4"},
      {"--jobserver-auth=3,4  --jobserver-authority=5,6 ", " --jobserver-authority=5,6 "},
  };
  for (const auto& c : cases) EXPECT_EQ(WithoutJobserverPipe(c.flags), c.without);
}

}  // namespace
}  // namespace kestrun
