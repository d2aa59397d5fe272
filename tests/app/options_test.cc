#include "app/options.h"

#include <gtest/gtest.h>

#include <string>

namespace kestrun {
namespace {

TEST(ReplaceMarker, LeavesTheTextAloneForTheDefaultAndForAnEmptyMarker) {
  for (const char* marker : {"$", ""}) {
    std::string text = "a$$b";
    ReplaceMarker(text, marker);
    EXPECT_EQ(text, "a$$b");
  }
}

TEST(ReplaceMarker, StartsOverAfterEachReplacement) {
  const struct {
    const char* text;
    const char* marker;
    const char* replaced;
  } cases[] = {{"#a##b#", "#", "$a$$b$"}, {"###", "##", "$#"}, {"a##$b", "#$", "a$b"}, {"$$$$", "$$", "$"}};
  for (const auto& c : cases) {
    std::string text = c.text;
    ReplaceMarker(text, c.marker);
    EXPECT_EQ(text, c.replaced) << c.text;
  }
}

}  // namespace
}  // namespace kestrun
