#include "runtime/base/json_text.h"

#include <cstdio>

namespace kestrun {

namespace {

bool IsContinuation(unsigned char byte) {
  return (byte & 0xC0) == 0x80;
}

// The number of bytes of the UTF-8 character at the beginning; 0 if there is none. Overlong forms, surrogates and
// values above U+10FFFF count as none, because strict readers refuse a text that contains them.
std::size_t CharacterLength(std::string_view bytes) {
  const auto at = [&](std::size_t i) { return i < bytes.size() ? static_cast<unsigned char>(bytes[i]) : 0; };
  const int first = at(0);
  if (first < 0x80) return 1;
  const std::size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
  if (first < 0xC2 || first > 0xF4) return 0;
  for (std::size_t i = 1; i < length; ++i) {
    if (!IsContinuation(static_cast<unsigned char>(at(i)))) return 0;
  }
  const int second = at(1);
  const bool isWrong = (first == 0xE0 && second < 0xA0) || (first == 0xED && second >= 0xA0) ||
                       (first == 0xF0 && second < 0x90) || (first == 0xF4 && second >= 0x90);
  return isWrong ? 0 : length;
}

void AppendAscii(char c, std::string& out) {
  if (c == '"' || c == '\\') {
    out += '\\';
    out += c;
  } else if (c == '\n') {
    out += "\\n";
  } else if (c == '\t') {
    out += "\\t";
    // 0x7F need not be escaped in JSON, but a terminal that shows the file might act on it.
  } else if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) {
    char escaped[8];
    std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(c));
    out += escaped;
  } else {
    out += c;
  }
}

}  // namespace

std::string QuoteJson(std::string_view bytes) {
  std::string out = "\"";
  while (!bytes.empty()) {
    const std::size_t length = CharacterLength(bytes);
    if (length == 1) {
      AppendAscii(bytes[0], out);
    } else if (length == 0) {
      // U+FFFD, in UTF-8.
      out += "\xEF\xBF\xBD";
    } else {
      out += bytes.substr(0, length);
    }
    bytes.remove_prefix(length == 0 ? 1 : length);
  }
  return out + '"';
}

void JsonWriter::Separate() {
  if (needsComma_) text_ += ',';
  if (startsLine_) text_ += '\n';
  needsComma_ = false;
  startsLine_ = false;
}

JsonWriter& JsonWriter::Key(std::string_view name) {
  Separate();
  text_ += QuoteJson(name);
  text_ += ':';
  return *this;
}

JsonWriter& JsonWriter::NewLine() {
  startsLine_ = true;
  return *this;
}

JsonWriter& JsonWriter::Open(char bracket) {
  Separate();
  text_ += bracket;
  return *this;
}

JsonWriter& JsonWriter::Close(char bracket) {
  if (startsLine_) text_ += '\n';
  startsLine_ = false;
  text_ += bracket;
  needsComma_ = true;
  return *this;
}

JsonWriter& JsonWriter::Raw(std::string_view value) {
  Separate();
  text_ += value;
  needsComma_ = true;
  return *this;
}

}  // namespace kestrun
