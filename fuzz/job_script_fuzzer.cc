// A job script of any content gives the jobs that a slow reading of its lines gives; variables are replaced where they
// are known and nothing else changes.
//
// Input: the script.
#include <string>

#include "client/slow_script.h"
#include "fuzz_input.h"

namespace kestrun::fuzz {
namespace {

// Expands character by character: a pair of signs with the name of a variable between them gives its value; a pair with
// any other name is kept.
std::string SlowExpand(const std::string& text) {
  std::string result;
  for (std::size_t at = 0; at < text.size(); ++at) {
    std::string name;
    std::size_t end = at + 1;
    while (text[at] == '%' && end < text.size() && text[end] != '%') name += text[end++];
    if (text[at] != '%' || end >= text.size()) {
      result += text[at];
      continue;
    }
    // For getenv a name ends at a zero byte.
    const char* const value = std::getenv(name.c_str());
    result += value != nullptr ? value : "%" + name + "%";
    at = end;
  }
  return result;
}

}  // namespace
}  // namespace kestrun::fuzz

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  setenv("CC", "cl /c", 1);
  setenv("X", "%CC%", 1);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const kestrun::u8* data, std::size_t size) {
  using namespace kestrun;
  const std::string text = fuzz::Input(data, size).Rest();
  FUZZ_REQUIRE(test::ShowJobs(ParseJobScript(text)) == test::SlowScript(text).Show());
  FUZZ_REQUIRE(ExpandScriptVariables(text) == fuzz::SlowExpand(text));
  return 0;
}
