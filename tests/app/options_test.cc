#include "app/options.h"

#include <gtest/gtest.h>

#include <random>

namespace kestrun {
namespace {

// By the letter: from the start of the text, again and again.
void ReplaceSlowly(std::string& text, const std::string& marker) {
  for (std::size_t found; (found = text.find(marker)) != std::string::npos;) text.replace(found, marker.size(), "$");
}

TEST(ReplaceMarker, LeavesTheTextAloneForTheDefaultAndForAnEmptyMarker) {
  for (const char* marker : {"$", ""}) {
    std::string text = "a$$b";
    ReplaceMarker(text, marker);
    EXPECT_EQ(text, "a$$b");
  }
}

TEST(ReplaceMarker, AgreesWithStartingOverAfterEachReplacement) {
  std::mt19937 random(1);
  const std::string letters = "a#$";
  for (int round = 0; round < 20000; ++round) {
    std::string marker;
    std::string text;
    for (auto i = 1 + random() % 3; i > 0; --i) marker += letters[random() % letters.size()];
    for (auto i = random() % 12; i > 0; --i) text += letters[random() % letters.size()];
    if (marker == "$") continue;
    std::string expected = text;
    ReplaceSlowly(expected, marker);
    const std::string original = text;
    ReplaceMarker(text, marker);
    ASSERT_EQ(text, expected) << marker << " in " << original;
  }
}

}  // namespace
}  // namespace kestrun
