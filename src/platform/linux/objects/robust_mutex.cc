#include "platform/linux/objects/robust_mutex.h"

#include <algorithm>
#include <cerrno>
#include <ctime>

#include "platform/linux/objects/observed_lock.h"

namespace kestrun::platform {

namespace {

// A long limit is waited for in slices of this length, and only slices are counted. If a whole build is suspended and
// resumed, the time in which this process was stopped then costs one slice at most.
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
  // The monotonic clock: pthread_mutex_timedlock would use the time of day, which may be set.
  const timespec until = deadline.ToTimespec();
  const ObservedLock observed(mutex);
  return observed.Note(pthread_mutex_clocklock(&mutex, CLOCK_MONOTONIC, &until));
}

pid_t OwnerThread(const pthread_mutex_t& mutex) {
#ifdef __GLIBC__
  // The futex word of a robust mutex. The kernel expects the owner's thread id in its low 30 bits, so their meaning
  // can't change. Relaxed: the answer is for a message, and may be old at once.
  return static_cast<pid_t>(static_cast<unsigned>(__atomic_load_n(&mutex.__data.__lock, __ATOMIC_RELAXED)) &
                            0x3FFFFFFF);
#else
  static_cast<void>(mutex);
  return 0;
#endif
}

RobustLock::RobustLock(pthread_mutex_t& mutex, DWORD limitMs) : mutex_(mutex) {
  // The mutex is nearly always free, and then no clock is read.
  int result = pthread_mutex_trylock(&mutex_);
  for (DWORD leftMs = limitMs; (result == EBUSY || result == ETIMEDOUT) && leftMs > 0;) {
    const DWORD sliceMs = std::min(leftMs, kSliceMs);
    result = LockRobustUntil(mutex_, Deadline::After(sliceMs));
    leftMs -= sliceMs;
  }
  // The data under such a mutex is valid after each store (see the header), so there is nothing to repair.
  if (result == EOWNERDEAD) pthread_mutex_consistent(&mutex_);
  isHeld_ = result == 0 || result == EOWNERDEAD;
}

RobustLock::~RobustLock() {
  if (isHeld_) pthread_mutex_unlock(&mutex_);
}

}  // namespace kestrun::platform
