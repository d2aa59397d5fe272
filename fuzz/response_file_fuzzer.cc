// Expands response files with any content, also with the names of each other. The text stays within its bounds, and a
// text without "@" is not changed.
//
// Input: the contents of the files "a" and "b", each up to the byte 0xFF, and the text.
#include <string>

#include "client/response_files.h"
#include "fuzz_input.h"

extern "C" int LLVMFuzzerTestOneInput(const kestrun::u8* data, std::size_t size) {
  using namespace kestrun;
  using namespace kestrun::fuzz;
  std::filesystem::current_path(Folder());
  Input input(data, size);
  WriteFile("a", input.Piece());
  WriteFile("b", input.Piece());
  const std::string text = input.Rest();
  ResponseFileLimits limits;
  limits.maxExpansions = 40;
  limits.maxBytes = 4096;
  const std::string result = ExpandResponseFiles(text, limits);
  // The "@" itself becomes a blank, so that each expansion is one more than the file's text.
  FUZZ_REQUIRE(result.size() <= std::max(text.size(), limits.maxBytes) + 1);
  FUZZ_REQUIRE(result.substr(0, text.find('@')) == text.substr(0, text.find('@')));
  if (text.find('@') == std::string::npos) FUZZ_REQUIRE(result == text);
  return 0;
}
