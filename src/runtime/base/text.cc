#include "runtime/base/text.h"

#include <algorithm>
#include <cctype>

namespace kestrun {

namespace {

constexpr size_t kMaxFileName = 260;
constexpr const char* kLineEnds = "\r\n";

bool IsSpace(char c) {
  return std::isspace(static_cast<unsigned char>(c)) != 0;
}

template <class Add>
void ForEachPiece(const std::string& text, char separator, Add add) {
  size_t begin = 0;
  while (begin < text.size()) {
    size_t end = std::min(text.find(separator, begin), text.size());
    add(text.substr(begin, end - begin));
    begin = end + 1;
  }
}

}  // namespace

// Longer texts are no file names, and are returned as they came.
std::string ToLower(const std::string& text) {
  if (text.size() > kMaxFileName) return text;
  std::string result(text);
  for (char& c : result) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return result;
}

std::string Trim(const std::string& text) {
  auto begin = std::find_if_not(text.begin(), text.end(), IsSpace);
  auto end = std::find_if_not(text.rbegin(), std::make_reverse_iterator(begin), IsSpace).base();
  return std::string(begin, end);
}

std::vector<std::string> SplitLines(const std::string& text, bool joinContinued) {
  std::vector<std::string> lines;
  bool continued = false;
  size_t begin = text.find_first_not_of(kLineEnds);
  while (begin != std::string::npos) {
    size_t end = std::min(text.find_first_of(kLineEnds, begin), text.size());
    if (!continued) lines.emplace_back();
    lines.back().append(text, begin, end - begin);
    // A backslash at the end of the text has no line after it to join.
    continued = joinContinued && end < text.size() && lines.back().back() == '\\';
    if (continued) lines.back().back() = ' ';
    begin = text.find_first_not_of(kLineEnds, end);
  }
  return lines;
}

std::vector<std::string> Split(const std::string& text, char separator) {
  std::vector<std::string> pieces;
  ForEachPiece(text, separator, [&](std::string piece) { pieces.push_back(std::move(piece)); });
  return pieces;
}

std::set<std::string> SplitToSet(const std::string& text, char separator) {
  std::set<std::string> pieces;
  ForEachPiece(text, separator, [&](std::string piece) { pieces.insert(std::move(piece)); });
  return pieces;
}

std::string Join(const std::vector<std::string>& pieces, char separator) {
  std::string result;
  for (size_t i = 0; i < pieces.size(); ++i) {
    if (i > 0) result += separator;
    result += pieces[i];
  }
  return result;
}

std::string Substitute(const std::string& text, const std::map<std::string, std::string>& values, bool* allFound) {
  std::string result;
  bool found = true;
  size_t done = 0;
  for (;;) {
    // A single "%" without a partner stays, with all that follows it.
    size_t open = text.find('%', done);
    size_t close = open == std::string::npos ? open : text.find('%', open + 1);
    if (close == std::string::npos) break;
    auto value = values.find(text.substr(open + 1, close - open - 1));
    if (value != values.end()) {
      result.append(text, done, open - done).append(value->second);
    } else {
      result.append(text, done, close + 1 - done);
      found = false;
    }
    done = close + 1;
  }
  if (allFound != nullptr) *allFound = found;
  return result.append(text, done);
}

bool IsNumber(const std::string& text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

}  // namespace kestrun
