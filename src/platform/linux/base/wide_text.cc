#include "platform/linux/base/wide_text.h"

#include <cstdint>

namespace kestrun::platform {

namespace {

// Bytes that are not UTF-8 become this plus their value: a range of surrogates, which no valid text contains.
constexpr std::uint32_t kEscapedByte = 0xDC00;

void AppendBytes(std::uint32_t point, std::string& bytes) {
  const auto append = [&bytes](std::uint32_t value) { bytes += static_cast<char>(value); };
  if (point < 0x80) {
    append(point);
  } else if (point < 0x800) {
    append(0xC0 | (point >> 6));
    append(0x80 | (point & 0x3F));
  } else if (point < 0x10000) {
    append(0xE0 | (point >> 12));
    append(0x80 | ((point >> 6) & 0x3F));
    append(0x80 | (point & 0x3F));
  } else {
    append(0xF0 | (point >> 18));
    append(0x80 | ((point >> 12) & 0x3F));
    append(0x80 | ((point >> 6) & 0x3F));
    append(0x80 | (point & 0x3F));
  }
}

// The length of the UTF-8 sequence at the start of `bytes`, and its value; 0 if the bytes are none. Overlong sequences,
// surrogates and values above U+10FFFF are refused, since Narrow would not give the same bytes back.
std::size_t Decode(std::string_view bytes, std::uint32_t& point) {
  const auto first = static_cast<unsigned char>(bytes[0]);
  const std::size_t length = first < 0x80   ? 1
                             : first < 0xC2 ? 0
                             : first < 0xE0 ? 2
                             : first < 0xF0 ? 3
                             : first < 0xF5 ? 4
                                            : 0;
  if (length == 0 || bytes.size() < length) return 0;
  if (length == 1) {
    point = first;
    return 1;
  }
  point = first & (0x7Fu >> length);
  for (std::size_t i = 1; i < length; ++i) {
    const auto next = static_cast<unsigned char>(bytes[i]);
    if ((next & 0xC0) != 0x80) return 0;
    point = (point << 6) | (next & 0x3F);
  }
  constexpr std::uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
  const bool isCharacter = point >= kSmallest[length] && point <= 0x10FFFF && (point < 0xD800 || point > 0xDFFF);
  return isCharacter ? length : 0;
}

}  // namespace

bool Narrow(std::wstring_view wide, std::string& bytes) {
  bytes.clear();
  for (const wchar_t character : wide) {
    const auto point = static_cast<std::uint32_t>(static_cast<char32_t>(character));
    if (point >= kEscapedByte + 0x80 && point <= kEscapedByte + 0xFF) {
      bytes += static_cast<char>(point - kEscapedByte);
    } else if (point > 0x10FFFF || (point >= 0xD800 && point <= 0xDFFF)) {
      return false;
    } else {
      AppendBytes(point, bytes);
    }
  }
  return true;
}

std::wstring Widen(std::string_view bytes) {
  std::wstring wide;
  while (!bytes.empty()) {
    std::uint32_t point = 0;
    std::size_t length = Decode(bytes, point);
    if (length == 0) {
      point = kEscapedByte + static_cast<unsigned char>(bytes[0]);
      length = 1;
    }
    wide += static_cast<wchar_t>(point);
    bytes.remove_prefix(length);
  }
  return wide;
}

}  // namespace kestrun::platform
