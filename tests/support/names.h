// Names and folders that no other test uses, in this process or another.
#ifndef KESTRUN_TESTS_SUPPORT_NAMES_H_
#define KESTRUN_TESTS_SUPPORT_NAMES_H_

#include <filesystem>
#include <string>
#include <string_view>

namespace kestrun::test {

// PREFIX, this process's id and a counter: unique on the machine while this process lives.
std::string UniqueName(std::string_view prefix = "kestrun_test");

// A new folder below the system's temporary one; removed with all that it holds when the object goes.
class TempFolder {
 public:
  TempFolder();
  ~TempFolder();
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;

  const std::filesystem::path& Path() const { return path_; }
  // The full name of a file in the folder, as the system writes names.
  std::string File(std::string_view name) const;
  // Writes TEXT, byte for byte, and gives the file's full name.
  std::string Write(std::string_view name, std::string_view text) const;
  // The bytes of a file of the folder; fails the test if it can't be read.
  std::string Read(std::string_view name) const;

 private:
  std::filesystem::path path_;
};

}  // namespace kestrun::test

#endif  // KESTRUN_TESTS_SUPPORT_NAMES_H_
