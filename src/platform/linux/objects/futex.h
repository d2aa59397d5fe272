// The two futex calls that the layer uses. Spurious returns happen, so callers read their word again after each.
#ifndef KESTRUN_PLATFORM_LINUX_OBJECTS_FUTEX_H_
#define KESTRUN_PLATFORM_LINUX_OBJECTS_FUTEX_H_

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>

#include "platform/linux/objects/deadline.h"
#include "platform/linux/objects/wait_words.h"

namespace kestrun::platform {

static_assert(sizeof(std::atomic<std::uint32_t>) == sizeof(std::uint32_t));

// Sleeps while the word is `expected`. 0 when woken; -1 with EAGAIN (the word differed), EINTR or ETIMEDOUT; any other
// errno means that the kernel refuses the call itself.
inline long FutexWait(std::atomic<std::uint32_t>& word, std::uint32_t expected, Scope scope, const Deadline& deadline) {
  const timespec until = deadline.ToTimespec();
  const int op = FUTEX_WAIT_BITSET | (scope == Scope::kProcess ? FUTEX_PRIVATE_FLAG : 0);
  return syscall(SYS_futex, &word, op, expected, deadline.IsNever() ? nullptr : &until, nullptr,
                 FUTEX_BITSET_MATCH_ANY);
}

// Wakes up to `count` threads that sleep on the word.
inline void FutexWake(std::atomic<std::uint32_t>& word, int count, Scope scope) {
  const int op = FUTEX_WAKE | (scope == Scope::kProcess ? FUTEX_PRIVATE_FLAG : 0);
  syscall(SYS_futex, &word, op, count, nullptr, nullptr, 0);
}

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_OBJECTS_FUTEX_H_
