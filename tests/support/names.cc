#include "support/names.h"

#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <iterator>

#include "support/child.h"

namespace kestrun::test {

std::string UniqueName(std::string_view prefix) {
  static std::atomic<unsigned> counter{0};
  return std::string(prefix) + "_" + std::to_string(CurrentProcessId()) + "_" + std::to_string(++counter);
}

TempFolder::TempFolder() : path_(std::filesystem::temp_directory_path() / UniqueName("kestrun_test")) {
  std::filesystem::create_directories(path_);
}

TempFolder::~TempFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string TempFolder::File(std::string_view name) const {
  return (path_ / name).string();
}

std::string TempFolder::Write(std::string_view name, std::string_view text) const {
  std::ofstream file(path_ / name, std::ios::binary);
  file.write(text.data(), static_cast<std::streamsize>(text.size()));
  EXPECT_TRUE(file.good()) << "writing " << name;
  return File(name);
}

std::string TempFolder::Read(std::string_view name) const {
  std::ifstream file(path_ / name, std::ios::binary);
  EXPECT_TRUE(file.good()) << "reading " << name;
  return std::string(std::istreambuf_iterator<char>(file), {});
}

}  // namespace kestrun::test
