#include "runtime/files/ini_file.h"

#include <gtest/gtest.h>

#include "support/names.h"

namespace kestrun {
namespace {

class IniFileTest : public testing::Test {
 protected:
  bool Load(const std::string& text) { return settings_.Load(Path(folder_.Write("Zelvo.ini", text))); }

  test::TempFolder folder_;
  IniFile settings_;
};

TEST_F(IniFileTest, AMissingFileLeavesTheDefaults) {
  EXPECT_FALSE(settings_.Load(Path(folder_.File("missing.ini"))));
  EXPECT_EQ(settings_.GetInt("LocalSettings/MaxStubs", 30), 30u);
}

TEST_F(IniFileTest, ValuesAreReadByTheWordBeforeTheFirstColon) {
  ASSERT_TRUE(
      Load("[S]\r\ni=int:42\r\nneg=int:-1\r\nbig=int:99999999999\r\nt=bool:true\r\nf=bool:TRUE\r\n"
           "s=string:a:b\r\nbare=true\r\nspaces= x \r\nempty=\r\nlost=C:\\Tools\r\ns=string:second\r\n"));
  EXPECT_EQ(settings_.GetInt("S/i", 0), 42u);
  EXPECT_EQ(settings_.GetInt("S/neg", 0), 0xFFFFFFFFu);
  EXPECT_EQ(settings_.GetInt("S/big", 0), 0x7FFFFFFFu);
  EXPECT_TRUE(settings_.GetBool("S/t", false));
  EXPECT_FALSE(settings_.GetBool("S/f", true));
  EXPECT_EQ(settings_.GetString("S/s", ""), "a:b") << "the first line of a key counts";
  EXPECT_FALSE(settings_.GetBool("S/bare", false)) << "a bare value is a string";
  EXPECT_EQ(settings_.GetString("S/bare", ""), "true");
  EXPECT_EQ(settings_.GetString("S/spaces", ""), " x ");
  EXPECT_EQ(settings_.GetType("S/empty"), IniValue::kString);
  EXPECT_EQ(settings_.GetType("S/lost"), IniValue::kNone);
  EXPECT_EQ(settings_.GetType("s/i"), IniValue::kNone) << "case counts";
}

TEST_F(IniFileTest, AWrongTypeIsAsGoodAsNone) {
  ASSERT_TRUE(Load("[S]\nk=int:1\n"));
  bool value = true;
  EXPECT_FALSE(settings_.Get("S/k", value));
  EXPECT_TRUE(value);
  EXPECT_FALSE(settings_.SetString("S/k", "text"));
  EXPECT_TRUE(settings_.SetInt("S/k", 2));
  EXPECT_EQ(settings_.GetInt("S/k", 0), 2u);
}

TEST_F(IniFileTest, SectionsGiveTheKeysTheirFirstPart) {
  ASSERT_TRUE(
      Load("ignored=int:0\n# a comment\n[a]\nk=int:1\n#c=int:3\n\nhidden=int:4\n[default]\nk=int:2\n [x]=int:5\n"));
  EXPECT_EQ(settings_.GetInt("a/k", 0), 1u);
  EXPECT_EQ(settings_.GetInt("a/#c", 0), 3u);
  EXPECT_EQ(settings_.GetInt("k", 0), 2u);
  EXPECT_EQ(settings_.GetInt(" [x]", 0), 5u);
  EXPECT_EQ(settings_.GetType("a/hidden"), IniValue::kNone);
  EXPECT_EQ(settings_.GetType("ignored"), IniValue::kNone);
}

TEST_F(IniFileTest, AMalformedLineKeepsItsSectionAndWhatFollowsOut) {
  EXPECT_FALSE(Load("[a]\nk=int:1\n[b]\nk=int:2\nno setting\n[c]\nk=int:3\n"));
  EXPECT_EQ(settings_.GetInt("a/k", 0), 1u);
  EXPECT_EQ(settings_.GetType("b/k"), IniValue::kNone);
  EXPECT_EQ(settings_.GetType("c/k"), IniValue::kNone);
  EXPECT_FALSE(Load("k=int:1\n")) << "no section";
  EXPECT_EQ(settings_.GetType("a/k"), IniValue::kNone) << "a load replaces everything";
}

TEST_F(IniFileTest, SavingWritesEverythingAndItReadsBack) {
  ASSERT_TRUE(Load("# gone after saving\n[Zoo]\nb=bool:false\n"));
  settings_.SetInt("Zoo/a", static_cast<u32>(-7));
  settings_.SetString("plain", "a:b");
  EXPECT_TRUE(settings_.Save());
  EXPECT_EQ(folder_.Read("Zelvo.ini"), "[Zoo]\r\nb=bool:false\r\na=int:-7\r\n\r\n[default]\r\nplain=string:a:b\r\n");
  IniFile again;
  EXPECT_TRUE(again.Load(Path(folder_.File("Zelvo.ini"))));
  EXPECT_EQ(again.GetInt("Zoo/a", 0), static_cast<u32>(-7));
  EXPECT_EQ(again.GetString("plain", ""), "a:b");
}

TEST_F(IniFileTest, SavingNothingWritesNothing) {
  settings_.Load(Path(folder_.File("new.ini")));
  EXPECT_TRUE(settings_.Save());
  EXPECT_FALSE(std::filesystem::exists(folder_.File("new.ini")));
  settings_.SetBool("S/b", true);
  settings_.Remove("S/b");
  EXPECT_EQ(settings_.GetType("S/b"), IniValue::kNone);
}

}  // namespace
}  // namespace kestrun
