#include "support/json.h"

#include <cstdlib>
#include <stdexcept>

namespace kestrun::test {

namespace {

class Parser {
 public:
  explicit Parser(std::string_view text) : text_(text) {}

  Json Whole() {
    Json value = Value();
    SkipBlanks();
    if (at_ != text_.size()) Fail("something behind the value");
    return value;
  }

 private:
  [[noreturn]] void Fail(const char* cause) const {
    throw std::runtime_error(std::string(cause) + " at byte " + std::to_string(at_));
  }
  char Peek() const { return at_ < text_.size() ? text_[at_] : '\0'; }
  char Next() {
    if (at_ == text_.size()) Fail("end of text");
    return text_[at_++];
  }
  void SkipBlanks() {
    while (at_ < text_.size() && std::string_view(" \t\r\n").find(text_[at_]) != std::string_view::npos) ++at_;
  }
  bool Take(std::string_view word) {
    if (text_.substr(at_, word.size()) != word) return false;
    at_ += word.size();
    return true;
  }
  void Expect(char c) {
    SkipBlanks();
    if (Next() != c) Fail("another character expected");
  }

  Json Value() {
    SkipBlanks();
    Json value;
    if (Peek() == '{') return Object();
    if (Peek() == '[') return Array();
    if (Peek() == '"') {
      value.kind = Json::Kind::kString;
      value.string = String();
    } else if (Take("true") || Take("false")) {
      value.kind = Json::Kind::kBool;
      value.boolean = text_[at_ - 2] == 'u';
    } else if (!Take("null")) {
      value.kind = Json::Kind::kNumber;
      value.number = Number();
    }
    return value;
  }

  double Number() {
    const std::string digits(text_.substr(at_, text_.find_first_not_of("-+.eE0123456789", at_) - at_));
    char* end = nullptr;
    const double number = std::strtod(digits.c_str(), &end);
    if (digits.empty() || *end != '\0') Fail("no value");
    at_ += digits.size();
    return number;
  }

  Json Object() {
    Json value;
    value.kind = Json::Kind::kObject;
    Expect('{');
    for (SkipBlanks(); Peek() != '}'; SkipBlanks()) {
      if (!value.members.empty()) Expect(',');
      SkipBlanks();
      const std::string key = String();
      Expect(':');
      if (!value.members.emplace(key, Value()).second) Fail("a member that stands twice");
    }
    ++at_;
    return value;
  }

  Json Array() {
    Json value;
    value.kind = Json::Kind::kArray;
    Expect('[');
    for (SkipBlanks(); Peek() != ']'; SkipBlanks()) {
      if (!value.elements.empty()) Expect(',');
      value.elements.push_back(Value());
    }
    ++at_;
    return value;
  }

  std::string String() {
    if (Next() != '"') Fail("no string");
    std::string text;
    for (char c = Next(); c != '"'; c = Next()) {
      if (static_cast<unsigned char>(c) < 0x20) Fail("a control character");
      if (c == '\\') {
        text += Escaped();
      } else {
        text += c;
        if (static_cast<unsigned char>(c) >= 0x80) text += Tail(static_cast<unsigned char>(c));
      }
    }
    return text;
  }

  // Takes the bytes of a character beyond ASCII that follow its first one.
  std::string Tail(unsigned char first) {
    if (first < 0xC2 || first > 0xF4) Fail("no UTF-8");
    std::string tail;
    for (int left = first >= 0xF0 ? 3 : first >= 0xE0 ? 2 : 1; left > 0; --left) {
      tail += Next();
      if ((static_cast<unsigned char>(tail.back()) & 0xC0) != 0x80) Fail("no UTF-8");
    }
    return tail;
  }

  // The program under test escapes only ASCII characters.
  char Escaped() {
    const char c = Next();
    static constexpr std::string_view kNames = "\"\\/bfnrt";
    static constexpr std::string_view kCharacters = "\"\\/\b\f\n\r\t";
    const std::size_t known = kNames.find(c);
    if (known != std::string_view::npos) return kCharacters[known];
    if (c != 'u') Fail("an unknown escape");
    std::string digits;
    for (int i = 0; i < 4; ++i) digits += Next();
    char* end = nullptr;
    const unsigned long code = std::strtoul(digits.c_str(), &end, 16);
    if (*end != '\0' || code >= 0x80) Fail("an unexpected escape");
    return static_cast<char>(code);
  }

  const std::string_view text_;
  std::size_t at_ = 0;
};

}  // namespace

Json Json::Parse(std::string_view text) {
  return Parser(text).Whole();
}

const Json& Json::operator[](const std::string& key) const {
  static const Json kNone;
  const auto found = members.find(key);
  return found != members.end() ? found->second : kNone;
}

}  // namespace kestrun::test
