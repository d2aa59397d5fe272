// wchar_t text (one code point each) and the bytes that the system's calls take.
#ifndef KESTRUN_PLATFORM_LINUX_BASE_WIDE_TEXT_H_
#define KESTRUN_PLATFORM_LINUX_BASE_WIDE_TEXT_H_

#include <string>
#include <string_view>

namespace kestrun::platform {

// UTF-8. False if there is a value that is no character.
bool Narrow(std::wstring_view wide, std::string& bytes);

// Bytes that aren't UTF-8 come as U+DC80 to U+DCFF, and Narrow gives them back, so that every file can be named.
std::wstring Widen(std::string_view bytes);

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_BASE_WIDE_TEXT_H_
