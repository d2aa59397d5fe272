// Tells ThreadSanitizer of a lock that it does not see being taken: of the calls that lock a mutex of the C library, it
// does not know pthread_mutex_clocklock. Without the sanitizer nothing is left of it.
#ifndef KESTRUN_PLATFORM_LINUX_OBJECTS_OBSERVED_LOCK_H_
#define KESTRUN_PLATFORM_LINUX_OBJECTS_OBSERVED_LOCK_H_

#include <pthread.h>

#include <cerrno>

#ifdef __SANITIZE_THREAD__
#include <sanitizer/tsan_interface.h>
#endif

namespace kestrun::platform {

// Made before the call; Note passes on what the call gives.
class ObservedLock {
 public:
#ifdef __SANITIZE_THREAD__
  explicit ObservedLock(pthread_mutex_t& mutex) : mutex_(mutex) {
    __tsan_mutex_pre_lock(&mutex_, __tsan_mutex_try_lock);
  }
  // EOWNERDEAD: the lock is taken, from an owner that was another process.
  int Note(int result) const {
    const unsigned failed = result == 0 || result == EOWNERDEAD ? 0 : __tsan_mutex_try_lock_failed;
    __tsan_mutex_post_lock(&mutex_, __tsan_mutex_try_lock | failed, 0);
    return result;
  }

 private:
  pthread_mutex_t& mutex_;
#else
  explicit ObservedLock(pthread_mutex_t&) {}
  int Note(int result) const {
    return result;
  }
#endif
};

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_OBJECTS_OBSERVED_LOCK_H_
