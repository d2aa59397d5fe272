#include "platform/linux/objects/robust_mutex.h"

#include <algorithm>
#include <cerrno>
#include <ctime>

#include "platform/linux/objects/observed_lock.h"

namespace kestrun::platform {

namespace {

// A build that is suspended as a whole goes on as a whole: the time in which this process was stopped must not count,
// and costs one slice at most.
constexpr DWORD kSliceMs = 500;

}  // namespace

void InitialiseRobustMutex(pthread_mutex_t& mutex) {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
  pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
  pthread_mutex_init(&mutex, &attributes);
  pthread_mutexattr_destroy(&attributes);
}

int LockRobustUntil(pthread_mutex_t& mutex, const Deadline& deadline) {
  if (deadline.IsNever()) return pthread_mutex_lock(&mutex);
  const timespec until = deadline.ToTimespec();
  const ObservedLock observed(mutex);
  return observed.Note(pthread_mutex_clocklock(&mutex, CLOCK_MONOTONIC, &until));
}

pid_t OwnerThread(const pthread_mutex_t& mutex) {
#ifdef __GLIBC__
  // The futex word, of which the kernel itself expects the owner's id in these bits.
  return static_cast<pid_t>(static_cast<unsigned>(__atomic_load_n(&mutex.__data.__lock, __ATOMIC_RELAXED)) &
                            0x3FFFFFFF);
#else
  static_cast<void>(mutex);
  return 0;
#endif
}

RobustLock::RobustLock(pthread_mutex_t& mutex, DWORD limitMs) : mutex_(mutex) {
  // Nearly always free, and then no clock is read.
  int result = pthread_mutex_trylock(&mutex_);
  for (DWORD leftMs = limitMs; (result == EBUSY || result == ETIMEDOUT) && leftMs > 0;) {
    const DWORD sliceMs = std::min(leftMs, kSliceMs);
    result = LockRobustUntil(mutex_, Deadline::After(sliceMs));
    leftMs -= sliceMs;
  }
  if (result == EOWNERDEAD) pthread_mutex_consistent(&mutex_);
  isHeld_ = result == 0 || result == EOWNERDEAD;
}

RobustLock::~RobustLock() {
  if (isHeld_) pthread_mutex_unlock(&mutex_);
}

}  // namespace kestrun::platform
