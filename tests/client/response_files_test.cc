#include "client/response_files.h"

#include <gtest/gtest.h>

#include "support/names.h"

namespace kestrun {
namespace {

class ResponseFiles : public testing::Test {
 protected:
  // Expands with what goes to the standard error stream collected.
  std::string Expand(const std::string& text, const ResponseFileLimits& limits = {}) {
    testing::internal::CaptureStderr();
    std::string result = ExpandResponseFiles(text, limits);
    errors_ = testing::internal::GetCapturedStderr();
    return result;
  }
  static std::string CouldNotOpen(const std::string& name) {
    return "KESTRUN: error: Could not open response file " + name + "\n";
  }

  test::TempFolder folder_;
  std::string errors_;
};

TEST_F(ResponseFiles, BecomeTheirTextWithBlanksForLineEnds) {
  const std::string name = folder_.Write("args.rsp", "a\nb\n");
  EXPECT_EQ(Expand("-Ifoo @" + name + " -c"), "-Ifoo  a b  -c");
  folder_.Write("crlf.rsp", "a\r\nb");
  EXPECT_EQ(Expand("@" + folder_.File("crlf.rsp")), " a b");
  folder_.Write("empty.rsp", "");
  EXPECT_EQ(Expand("x@" + folder_.File("empty.rsp") + " y"), "x  y");
  EXPECT_EQ(errors_, "");
}

TEST_F(ResponseFiles, MayBeNamedInQuotes) {
  const std::string name = folder_.Write("my args.rsp", "a b");
  EXPECT_EQ(Expand("@\"" + name + "\"-c"), " a b-c");
  EXPECT_EQ(Expand("@\"" + name), " a b");
}

TEST_F(ResponseFiles, Nest) {
  folder_.Write("inner.rsp", "in");
  const std::string outer = folder_.Write("outer.rsp", "1 @" + folder_.File("inner.rsp") + " 2");
  EXPECT_EQ(Expand("@" + outer + " @" + outer), " 1  in 2  1  in 2");
}

TEST_F(ResponseFiles, ThatCannotBeOpenedEndTheExpansionWithAMessage) {
  const std::string name = folder_.Write("args.rsp", "a");
  const std::string missing = folder_.File("missing");
  EXPECT_EQ(Expand("@" + name + " @" + missing + " @" + name), " a @" + missing + " @" + name);
  EXPECT_EQ(errors_, CouldNotOpen(missing));
  EXPECT_EQ(Expand("a @"), "a @");
  EXPECT_EQ(errors_, CouldNotOpen(""));
  const std::string directory = folder_.Path().string();
  EXPECT_EQ(Expand("@" + directory), "@" + directory);
  EXPECT_EQ(errors_, CouldNotOpen(directory));
}

TEST_F(ResponseFiles, ThatNameThemselvesComeToAnEnd) {
  const std::string name = folder_.File("loop.rsp");
  folder_.Write("loop.rsp", "x @" + name);
  ResponseFileLimits limits;
  limits.maxExpansions = 3;
  EXPECT_EQ(Expand("@" + name, limits), " x  x  x @" + name);
  EXPECT_EQ(errors_, "KESTRUN: error: Too many response files, not expanding " + name + "\n");
  Expand("@" + name);
  EXPECT_NE(errors_, "");
}

TEST_F(ResponseFiles, MayNotMakeTheTextTooLong) {
  const std::string name = folder_.Write("long.rsp", std::string(100, 'x'));
  ResponseFileLimits limits;
  limits.maxBytes = 100 + name.size() + 1;
  EXPECT_EQ(Expand("@" + name, limits), " " + std::string(100, 'x'));
  limits.maxBytes -= 1;
  EXPECT_EQ(Expand("@" + name, limits), "@" + name);
  EXPECT_EQ(errors_, "KESTRUN: error: Text is too long for response file " + name + "\n");
}

}  // namespace
}  // namespace kestrun
