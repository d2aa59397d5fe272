#include "client/annotations.h"

#include <gtest/gtest.h>

namespace kestrun {
namespace {

TEST(StripAnnotations, LeavesWhatTheToolMaySee) {
  const struct {
    const char* text;
    const char* stripped;
  } cases[] = {
      {"cl /c $$I:a.c $$O:a.obj $$Cmore", "cl /c a.c a.obj "},
      {"cl a$$Cb $$I:c", "cl a"},
      {"cl $$ $I:a $$i:b", "cl $$ $I:a $$i:b"},
      {"$$$$I:I:x", "x"},  // taking one out forms another
      {"$$I:$$O:$$I:", ""},
      {"", ""},
  };
  for (const auto& c : cases) EXPECT_EQ(StripAnnotations(c.text), c.stripped) << c.text;
}

}  // namespace
}  // namespace kestrun
