// Reads a settings file of any content, saves it and reads it again: each setting has the same type and value.
//
// Input: the file.
#include <string>
#include <vector>

#include "fuzz_input.h"
#include "runtime/files/ini_file.h"

namespace kestrun::fuzz {
namespace {

// Lists the keys that the file may hold: every section with every name. Empty for a file with lines that the reader
// would cut. A section with a "/" is left out, and so is a name with one in the section "default": their keys do not
// tell where the name begins.
std::vector<std::string> KeysOf(const std::string& text) {
  std::vector<std::string> sections;
  std::vector<std::string> names;
  for (std::size_t at = 0; at <= text.size();) {
    const std::size_t end = std::min(text.find('\n', at), text.size());
    std::string line = text.substr(at, end - at);
    at = end + 1;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.size() > 400 || line.find('\0') != std::string::npos) return {};
    if (line.size() >= 2 && line.front() == '[' && line.back() == ']')
      sections.push_back(line.substr(1, line.size() - 2));
    if (line.find('=') != std::string::npos) names.push_back(line.substr(0, line.find('=')));
  }
  std::vector<std::string> keys;
  for (const std::string& section : sections) {
    if (section.find('/') != std::string::npos) continue;
    for (const std::string& name : names) {
      if (section != "default") {
        keys.push_back(section + "/" + name);
      } else if (name.find('/') == std::string::npos) {
        keys.push_back(name);
      }
    }
  }
  return keys;
}

std::string Show(IniFile& settings, const std::string& key) {
  bool truth = false;
  u32 number = 0;
  std::string text;
  const bool isBool = settings.Get(key, truth);
  const bool isInt = settings.Get(key, number);
  const bool isString = settings.Get(key, text);
  FUZZ_REQUIRE(isBool + isInt + isString == (settings.GetType(key) == IniValue::kNone ? 0 : 1));
  return std::to_string(settings.GetType(key)) + (truth ? "t" : "f") + std::to_string(number) + text;
}

}  // namespace
}  // namespace kestrun::fuzz

extern "C" int LLVMFuzzerTestOneInput(const kestrun::u8* data, std::size_t size) {
  using namespace kestrun;
  using namespace kestrun::fuzz;
  const std::string text = Input(data, size).Rest();
  const Path path(WriteFile("Zelvo.ini", text));
  IniFile settings;
  settings.Load(path);
  settings.GetInt("LocalSettings/MaxStubs", 30);
  IniFile again;
  FUZZ_REQUIRE(settings.Save());
  again.Load(path);
  const bool isSame = text.find("[default]") == std::string::npos || text.find('/') == std::string::npos;
  for (const std::string& key : KeysOf(text)) {
    if (!isSame || Show(settings, key) == Show(again, key)) continue;
    std::fprintf(stderr, "'%s': '%s', again '%s'\n", key.c_str(), Show(settings, key).c_str(),
                 Show(again, key).c_str());
    std::abort();
  }
  return 0;
}
