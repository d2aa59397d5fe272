// The kernel's calls without the C library. The result is the kernel's own: an error is its number below 0.
#ifndef KESTRUN_PLATFORM_LINUX_EARLY_SYSTEM_CALLS_H_
#define KESTRUN_PLATFORM_LINUX_EARLY_SYSTEM_CALLS_H_

#include <cerrno>
#include <type_traits>

namespace kestrun::platform::early {

inline long CallKernel(long number, long a, long b, long c, long d, long e, long f) {
  long result = 0;
  register long fourth asm("r10") = d;
  register long fifth asm("r8") = e;
  register long sixth asm("r9") = f;
  asm volatile("syscall"
               : "=a"(result)
               : "a"(number), "D"(a), "S"(b), "d"(c), "r"(fourth), "r"(fifth), "r"(sixth)
               : "rcx", "r11", "memory");
  return result;
}

template <class Word>
long AsWord(Word word) {
  if constexpr (std::is_pointer_v<Word>) {
    return reinterpret_cast<long>(word);
  } else {
    return static_cast<long>(word);
  }
}

template <class A = long, class B = long, class C = long, class D = long, class E = long>
long Call(long number, A a = {}, B b = {}, C c = {}, D d = {}, E e = {}) {
  return CallKernel(number, AsWord(a), AsWord(b), AsWord(c), AsWord(d), AsWord(e), 0);
}

// Once more for each signal that interrupts it.
template <class... Words>
long CallAgain(long number, Words... words) {
  long result = 0;
  do {
    result = Call(number, words...);
  } while (result == -EINTR);
  return result;
}

}  // namespace kestrun::platform::early

#endif  // KESTRUN_PLATFORM_LINUX_EARLY_SYSTEM_CALLS_H_
