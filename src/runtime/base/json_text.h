// Writes JSON as text: the values one after the other, with commas between them.
#ifndef KESTRUN_RUNTIME_BASE_JSON_TEXT_H_
#define KESTRUN_RUNTIME_BASE_JSON_TEXT_H_

#include <cstdint>
#include <string>
#include <string_view>

namespace kestrun {

// The bytes as a JSON string with its quotes. The result is valid UTF-8 whatever the bytes are: each byte that belongs
// to no character becomes U+FFFD. Quotes, backslashes and control characters are escaped.
std::string QuoteJson(std::string_view bytes);

// Builds one JSON value. Each member of an object is a Key followed by a value; the caller is responsible for that
// order. For one thread at a time; nothing fails.
class JsonWriter {
 public:
  JsonWriter& BeginObject() { return Open('{'); }
  JsonWriter& EndObject() { return Close('}'); }
  JsonWriter& BeginArray() { return Open('['); }
  JsonWriter& EndArray() { return Close(']'); }
  JsonWriter& Key(std::string_view name);
  JsonWriter& String(std::string_view bytes) { return Raw(QuoteJson(bytes)); }
  JsonWriter& Int(std::int64_t value) { return Raw(std::to_string(value)); }
  JsonWriter& Bool(bool value) { return Raw(value ? "true" : "false"); }
  JsonWriter& Null() { return Raw("null"); }
  // Null for a negative one: how this program says that a number is not known.
  JsonWriter& Known(std::int64_t value) { return value < 0 ? Null() : Int(value); }
  // A line end between two elements, for readers of the file.
  JsonWriter& NewLine();

  const std::string& GetText() const { return text_; }
  std::string TakeText() { return std::move(text_); }

 private:
  JsonWriter& Open(char bracket);
  JsonWriter& Close(char bracket);
  JsonWriter& Raw(std::string_view value);
  void Separate();

  std::string text_;
  bool needsComma_ = false;
  bool startsLine_ = false;
};

}  // namespace kestrun

#endif  // KESTRUN_RUNTIME_BASE_JSON_TEXT_H_
