// A test with a folder of named objects of its own, which only its children use.
#ifndef KESTRUN_TESTS_PLATFORM_LINUX_OBJECTS_FOLDER_FIXTURE_H_
#define KESTRUN_TESTS_PLATFORM_LINUX_OBJECTS_FOLDER_FIXTURE_H_

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "support/child.h"
#include "support/names.h"

namespace kestrun::test {

class ObjectFolderTest : public testing::Test {
 protected:
  std::string Objects() const { return folder_.File("objects"); }

  ChildOptions InFolder() const {
    ChildOptions options;
    options.environment["KESTRUN_OBJECT_DIR"] = Objects();
    return options;
  }

  // The data files of regions.
  std::vector<std::string> Files() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(Objects())) {
      const std::string name = entry.path().filename();
      if (name.starts_with(".data-")) names.push_back(name);
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  TempFolder folder_;
};

}  // namespace kestrun::test

#endif  // KESTRUN_TESTS_PLATFORM_LINUX_OBJECTS_FOLDER_FIXTURE_H_
