// The two futex calls that the layer uses. errno tells what happened; callers look at their word again in any case.
#ifndef KESTRUN_PLATFORM_LINUX_FUTEX_H_
#define KESTRUN_PLATFORM_LINUX_FUTEX_H_

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>

#include "platform/linux/waitable.h"

namespace kestrun::platform {

static_assert(sizeof(std::atomic<std::uint32_t>) == sizeof(std::uint32_t));

// Sleeps while the word is `expected`. 0 when woken, -1 with EAGAIN, EINTR, ETIMEDOUT, or what the kernel has against
// the call as such.
inline long FutexWait(std::atomic<std::uint32_t>& word, std::uint32_t expected, Scope scope, const Deadline& deadline) {
  const timespec until = deadline.ToTimespec();
  const int op = FUTEX_WAIT_BITSET | (scope == Scope::kProcess ? FUTEX_PRIVATE_FLAG : 0);
  return syscall(SYS_futex, &word, op, expected, deadline.IsNever() ? nullptr : &until, nullptr,
                 FUTEX_BITSET_MATCH_ANY);
}

inline void FutexWake(std::atomic<std::uint32_t>& word, int count, Scope scope) {
  const int op = FUTEX_WAKE | (scope == Scope::kProcess ? FUTEX_PRIVATE_FLAG : 0);
  syscall(SYS_futex, &word, op, count, nullptr, nullptr, 0);
}

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_FUTEX_H_
