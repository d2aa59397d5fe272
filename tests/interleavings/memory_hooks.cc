// What the compiler calls, with -fsanitize=thread, for each access of memory in the code under test. The program is not
// linked with that sanitizer: these functions take its place, and make each access of shared memory a step of the
// world. Memory of a process's own passes through.
//
// Plain accesses of shared memory are not expected: the product uses atomics, and memcpy for a ring's data, which is
// one step here. They fail the run.
#include <cstring>

#include "world.h"

using kestrun::u64;
using kestrun::u8;
using kestrun::interleavings::World;

namespace {

bool IsShared(const volatile void* address) {
  return World::Get().IsInFiber() && World::Get().IsSharedMemory(const_cast<const void*>(address));
}

void* Plain(const volatile void* address) {
  return const_cast<void*>(address);
}

void CheckPlain(const void* address) {
  if (IsShared(address)) World::Get().Fail("shared memory is used without an atomic");
}

template <class T>
T Load(const volatile T* address) {
  if (!IsShared(address)) return *address;
  World::Get().BeforeAccess(Plain(address), false);
  const T value = *address;
  World::Get().NoteRead(static_cast<u64>(value));
  return value;
}

// Replaces the value by change(value); gives the one before.
template <class T, class Change>
T Modify(volatile T* address, Change change, bool sees = true) {
  const bool isShared = IsShared(address);
  if (isShared) World::Get().BeforeAccess(Plain(address), true);
  const T before = *address;
  const T after = change(before);
  *address = after;
  if (!isShared) return before;
  if (sees) World::Get().NoteRead(static_cast<u64>(before));
  if (before != after) {
    World::Get().NoteWrite(Plain(address), sizeof(T), static_cast<u64>(before), static_cast<u64>(after));
  }
  return before;
}

}  // namespace

extern "C" {

void __tsan_init() {}
void __tsan_func_entry(void*) {}
void __tsan_func_exit() {}
void __tsan_vptr_update(void**, void*) {}
void __tsan_vptr_read(void**) {}
void __tsan_read_range(void* address, unsigned long) {
  CheckPlain(address);
}
void __tsan_write_range(void* address, unsigned long) {
  CheckPlain(address);
}
void __tsan_atomic_thread_fence(int) {}
void __tsan_atomic_signal_fence(int) {}

#define KESTRUN_PLAIN(size)                          \
  void __tsan_read##size(void* address) {            \
    CheckPlain(address);                             \
  }                                                  \
  void __tsan_write##size(void* address) {           \
    CheckPlain(address);                             \
  }                                                  \
  void __tsan_unaligned_read##size(void* address) {  \
    CheckPlain(address);                             \
  }                                                  \
  void __tsan_unaligned_write##size(void* address) { \
    CheckPlain(address);                             \
  }
KESTRUN_PLAIN(1)
KESTRUN_PLAIN(2)
KESTRUN_PLAIN(4)
KESTRUN_PLAIN(8)
KESTRUN_PLAIN(16)

#define KESTRUN_ATOMIC(bits, Type)                                                                                  \
  Type __tsan_atomic##bits##_load(const volatile Type* address, int) {                                              \
    return Load(address);                                                                                           \
  }                                                                                                                 \
  void __tsan_atomic##bits##_store(volatile Type* address, Type value, int) {                                       \
    Modify(                                                                                                         \
        address, [value](Type) { return value; }, false);                                                           \
  }                                                                                                                 \
  Type __tsan_atomic##bits##_exchange(volatile Type* address, Type value, int) {                                    \
    return Modify(address, [value](Type) { return value; });                                                        \
  }                                                                                                                 \
  Type __tsan_atomic##bits##_fetch_add(volatile Type* address, Type value, int) {                                   \
    return Modify(address, [value](Type before) { return static_cast<Type>(before + value); });                     \
  }                                                                                                                 \
  Type __tsan_atomic##bits##_fetch_sub(volatile Type* address, Type value, int) {                                   \
    return Modify(address, [value](Type before) { return static_cast<Type>(before - value); });                     \
  }                                                                                                                 \
  int __tsan_atomic##bits##_compare_exchange_strong(volatile Type* address, Type* expected, Type value, int, int) { \
    const Type wanted = *expected;                                                                                  \
    *expected = Modify(address, [=](Type before) { return before == wanted ? value : before; });                    \
    return *expected == wanted;                                                                                     \
  }                                                                                                                 \
  int __tsan_atomic##bits##_compare_exchange_weak(volatile Type* address, Type* expected, Type value, int, int) {   \
    return __tsan_atomic##bits##_compare_exchange_strong(address, expected, value, 0, 0);                           \
  }                                                                                                                 \
  Type __tsan_atomic##bits##_compare_exchange_val(volatile Type* address, Type expected, Type value, int, int) {    \
    return Modify(address, [=](Type before) { return before == expected ? value : before; });                       \
  }
KESTRUN_ATOMIC(8, unsigned char)
KESTRUN_ATOMIC(16, unsigned short)
KESTRUN_ATOMIC(32, unsigned int)
KESTRUN_ATOMIC(64, unsigned long)

void* __real_memcpy(void* target, const void* source, std::size_t length);
void* __wrap_memcpy(void* target, const void* source, std::size_t length) {
  __real_memcpy(target, source, length);
  if (length > 0 && (IsShared(target) || IsShared(source))) World::Get().NoteCopy(target, source, length);
  return target;
}

}  // extern "C"
