// A strict reader of JSON for tests of what the program writes.
#ifndef KESTRUN_TESTS_SUPPORT_JSON_H_
#define KESTRUN_TESTS_SUPPORT_JSON_H_

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace kestrun::test {

// A value with all that is in it. Throws std::runtime_error, with the place, for a text that is no JSON or not UTF-8,
// and for a member that stands twice.
struct Json {
  enum class Kind { kNull, kBool, kNumber, kString, kArray, kObject };

  static Json Parse(std::string_view text);

  // Null for a member that is not there.
  const Json& operator[](const std::string& key) const;
  bool Has(const std::string& key) const { return members.contains(key); }
  bool IsNull() const { return kind == Kind::kNull; }
  long long Int() const { return static_cast<long long>(number); }

  Kind kind = Kind::kNull;
  bool boolean = false;
  double number = 0;
  std::string string;
  std::vector<Json> elements;
  std::map<std::string, Json> members;
};

}  // namespace kestrun::test

#endif  // KESTRUN_TESTS_SUPPORT_JSON_H_
