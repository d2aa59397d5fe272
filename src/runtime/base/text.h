// Small operations on text. Text is bytes: no call here looks at an encoding.
//
// Trim, SplitToSet and Substitute are offered to users of the library; the program itself does not call them.
#ifndef KESTRUN_RUNTIME_BASE_TEXT_H_
#define KESTRUN_RUNTIME_BASE_TEXT_H_

#include <map>
#include <set>
#include <string>
#include <vector>

namespace kestrun {

// Lower case by the C locale. A text of more than 260 bytes, which can be no file name, comes back unchanged.
std::string ToLower(const std::string& text);

// The text without white space at its ends.
std::string Trim(const std::string& text);

// The lines of a text, separated by any run of CR and LF; empty lines do not appear. With `joinContinued` a line that
// ends in a backslash goes on in the next one, with a blank in place of the backslash.
std::vector<std::string> SplitLines(const std::string& text, bool joinContinued);

// The pieces between separators, empty ones included but for one behind the last separator. An empty text has none.
std::vector<std::string> Split(const std::string& text, char separator);
std::set<std::string> SplitToSet(const std::string& text, char separator);

std::string Join(const std::vector<std::string>& pieces, char separator);

// Replaces every %NAME% whose name is in `values`; other references stay as they are and make `*allFound` false.
// What a value contains is not expanded again. `allFound` may be null.
std::string Substitute(const std::string& text, const std::map<std::string, std::string>& values, bool* allFound);

// True for one or more of the digits 0 to 9 and nothing else.
bool IsNumber(const std::string& text);

}  // namespace kestrun

#endif  // KESTRUN_RUNTIME_BASE_TEXT_H_
