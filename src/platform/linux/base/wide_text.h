// Conversion between wchar_t text (one code point in each element) and the bytes that the system's calls take.
//
// Pure functions for any thread. Widen never fails, and Narrow(Widen(bytes)) gives the same bytes, so that every file
// can be named.
#ifndef KESTRUN_PLATFORM_LINUX_BASE_WIDE_TEXT_H_
#define KESTRUN_PLATFORM_LINUX_BASE_WIDE_TEXT_H_

#include <string>
#include <string_view>

namespace kestrun::platform {

// To UTF-8. False if `wide` contains a value that is no character.
bool Narrow(std::wstring_view wide, std::string& bytes);

// From UTF-8. Bytes that are not UTF-8 become U+DC80 to U+DCFF, which Narrow turns back.
std::wstring Widen(std::string_view bytes);

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_BASE_WIDE_TEXT_H_
