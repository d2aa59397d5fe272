#include "protocol/job_label.h"

#include <algorithm>
#include <iterator>
#include <vector>

#include "runtime/base/text.h"

namespace kestrun {

namespace {

// Splits at blanks, with quotes of both kinds around words or parts of them. Programs split by other rules, too; for a
// label this is near enough.
std::vector<std::string> SplitWords(const std::string& command) {
  std::vector<std::string> words;
  std::string word;
  char quote = 0;
  for (const char c : command) {
    if (quote != 0 ? c == quote : c == '"' || c == '\'') {
      quote = quote != 0 ? 0 : c;
    } else if (quote == 0 && (c == ' ' || c == '\t')) {
      if (!word.empty()) words.push_back(std::move(word));
      word.clear();
    } else {
      word += c;
    }
  }
  if (!word.empty()) words.push_back(std::move(word));
  return words;
}

std::string LeafOf(const std::string& path) {
  return path.substr(path.find_last_of("/\\") + 1);
}

bool IsOption(const std::string& word) {
  return word[0] == '-' || word[0] == '@';
}

// The arguments without those that belong to the option before them and name no source, such as a dependency file, a
// folder or a macro.
std::vector<std::string> GetArguments(const std::vector<std::string>& words) {
  static const char* const kOptions[] = {
      "-MF", "-MT", "-MQ", "-I", "-isystem", "-iquote",   "-idirafter", "-D",      "-include", "-imacros",  "-U",
      "-L",  "-l",  "-x",  "-T", "-target",  "--sysroot", "-Xlinker",   "-Xclang", "-arch",    "-framework"};
  std::vector<std::string> arguments;
  for (std::size_t i = 1; i < words.size(); ++i) {
    const bool belongs = std::any_of(std::begin(kOptions), std::end(kOptions),
                                     [&](const char* option) { return words[i - 1] == option; });
    if (!belongs) arguments.push_back(words[i]);
  }
  return arguments;
}

bool IsSource(const std::string& word) {
  static const char* const kEndings[] = {".c",  ".cc", ".cpp", ".cxx", ".c++", ".m", ".mm", ".s",   ".asm",
                                         ".rs", ".go", ".f",   ".f90", ".cu",  ".d", ".rc", ".java"};
  if (IsOption(word)) return false;
  const std::size_t dot = word.rfind('.');
  if (dot == std::string::npos) return false;
  const std::string ending = ToLower(word.substr(dot));
  return std::any_of(std::begin(kEndings), std::end(kEndings), [&](const char* known) { return ending == known; });
}

}  // namespace

std::string GetFileOfJob(const JobText& text) {
  // A compiler's source tells most about a job, a linker's output comes next. What follows -o may look like a source.
  const std::vector<std::string> words = GetArguments(SplitWords(text.command));
  const auto output = std::find(words.begin(), words.end(), "-o");
  for (auto word = words.begin(); word != words.end(); ++word) {
    if (IsSource(*word) && (output == words.end() || word != output + 1)) return LeafOf(*word);
  }
  if (output != words.end() && output + 1 != words.end()) return LeafOf(output[1]);
  const auto last = std::find_if_not(words.rbegin(), words.rend(), IsOption);
  return last != words.rend() ? LeafOf(*last) : "";
}

std::string GetLabel(const JobText& text) {
  if (!text.name.empty()) return text.name;
  const std::string file = GetFileOfJob(text);
  const std::string tool = LeafOf(text.tool);
  return file.empty() ? tool : tool + " " + file;
}

std::string FitLine(const std::string& text, std::size_t columns) {
  std::string line;
  std::size_t used = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    // Bytes of 10xxxxxx continue a character and take no column of their own.
    const bool isContinuation = (byte & 0xC0) == 0x80;
    if (!isContinuation && used == columns) {
      // Makes room for the dots, by whole characters.
      while (!line.empty() && used + 3 > columns) {
        while (line.size() > 1 && (static_cast<unsigned char>(line.back()) & 0xC0) == 0x80) line.pop_back();
        line.pop_back();
        --used;
      }
      return line + std::string("...").substr(0, columns);
    }
    line += byte < 0x20 || byte == 0x7F ? '?' : text[i];
    if (!isContinuation) ++used;
  }
  return line;
}

}  // namespace kestrun
