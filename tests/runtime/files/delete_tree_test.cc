#include "runtime/files/delete_tree.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "support/names.h"

namespace kestrun {
namespace {

namespace fs = std::filesystem;

TEST(DeleteTree, TreesAreDeletedWholeButLinksAreNotFollowed) {
  const test::TempFolder folder;
  const test::TempFolder other;
  other.Write("keep", "x");
  fs::create_directories(folder.Path() / "tree" / "a" / "b");
  folder.Write("tree/a/b/file", "x");
  folder.Write("tree/file.with.dots", "x");
  std::error_code noLinksHere;
  fs::create_directory_symlink(other.Path(), folder.Path() / "tree" / "link", noLinksHere);
  EXPECT_TRUE(DeleteTree(Path(folder.File("tree"))));
  EXPECT_FALSE(fs::exists(folder.Path() / "tree"));
  EXPECT_TRUE(fs::exists(other.File("keep")));
  EXPECT_FALSE(DeleteTree(Path(folder.File("tree"))));
}

}  // namespace
}  // namespace kestrun
