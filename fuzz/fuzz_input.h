// Helpers of all fuzzers: they take an input apart, check what must hold, and own a folder for files.
#ifndef KESTRUN_FUZZ_FUZZ_INPUT_H_
#define KESTRUN_FUZZ_FUZZ_INPUT_H_

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "runtime/base/types.h"

namespace kestrun::fuzz {

// Ends the program with the line if something that must hold does not.
#define FUZZ_REQUIRE(condition)                                                           \
  do {                                                                                    \
    if (!(condition)) {                                                                   \
      std::fprintf(stderr, "%s:%d: does not hold: %s\n", __FILE__, __LINE__, #condition); \
      std::abort();                                                                       \
    }                                                                                     \
  } while (false)

// Takes the bytes of an input from the front; at its end there are only zeros and empty texts.
class Input {
 public:
  Input(const u8* data, std::size_t size) : next_(reinterpret_cast<const char*>(data)), left_(size) {}

  bool IsEmpty() const { return left_ == 0; }
  u8 Byte() {
    const std::string text = Text(1);
    return text.empty() ? u8{0} : static_cast<u8>(text[0]);
  }
  u32 Word() {
    const std::string text = Text(sizeof(u32));
    u32 word = 0;
    std::copy_n(text.data(), text.size(), reinterpret_cast<char*>(&word));
    return word;
  }
  // At most `length` bytes.
  std::string Text(std::size_t length) {
    const std::size_t count = std::min(length, left_);
    std::string text(next_, count);
    next_ += count;
    left_ -= count;
    return text;
  }
  // Up to the byte 0xFF, which goes with it, or to the end.
  std::string Piece() {
    const void* end = left_ > 0 ? std::memchr(next_, 0xFF, left_) : nullptr;
    std::string text = Text(end != nullptr ? static_cast<std::size_t>(static_cast<const char*>(end) - next_) : left_);
    Byte();
    return text;
  }
  std::string Rest() { return Text(left_); }

 private:
  const char* next_;
  std::size_t left_;
};

// The folder of this process, removed at its end. Its named objects are there as well, so that two fuzzers never share
// one. Must be made before the process makes its first named object.
inline const std::filesystem::path& Folder() {
  static const struct Owned {
    Owned() {
      std::string pattern = (std::filesystem::temp_directory_path() / "kestrun_fuzz_XXXXXX").string();
      FUZZ_REQUIRE(mkdtemp(pattern.data()) != nullptr);
      path = pattern;
      setenv("KESTRUN_OBJECT_DIR", (path / "objects").c_str(), 1);
    }
    ~Owned() {
      std::error_code ignored;
      std::filesystem::remove_all(path, ignored);
    }
    std::filesystem::path path;
  } owned;
  return owned.path;
}

// Writes a file of that folder, over any earlier one of the name, and gives its full name.
inline std::string WriteFile(const char* leaf, const std::string& text) {
  std::string name = (Folder() / leaf).string();
  std::FILE* const file = std::fopen(name.c_str(), "wb");
  FUZZ_REQUIRE(file != nullptr && std::fwrite(text.data(), 1, text.size(), file) == text.size());
  std::fclose(file);
  return name;
}

}  // namespace kestrun::fuzz

#endif  // KESTRUN_FUZZ_FUZZ_INPUT_H_
