// Integers by width, for all code above the platform layer.
//
// Times are milliseconds in u32 unless a name says otherwise; kNoLimit, which is the system's INFINITE, means no limit.
#ifndef KESTRUN_RUNTIME_BASE_TYPES_H_
#define KESTRUN_RUNTIME_BASE_TYPES_H_

#include <cstdint>

namespace kestrun {

using u8 = std::uint8_t;
using u16 = std::uint16_t;
using u32 = std::uint32_t;
using u64 = std::uint64_t;
using i32 = std::int32_t;

inline constexpr u32 kNoLimit = 0xFFFFFFFF;

}  // namespace kestrun

#endif  // KESTRUN_RUNTIME_BASE_TYPES_H_
