// Mutexes of the C library in memory that processes share. The kernel passes one on when its owner dies.
//
// A robust mutex must stay where it is while a thread owns it: the kernel finds a dead thread's mutexes through a list
// that runs through them.
#ifndef KESTRUN_PLATFORM_LINUX_OBJECTS_ROBUST_MUTEX_H_
#define KESTRUN_PLATFORM_LINUX_OBJECTS_ROBUST_MUTEX_H_

#include <pthread.h>

#include <cerrno>

namespace kestrun::platform {

inline void InitialiseRobustMutex(pthread_mutex_t& mutex) {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
  pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
  pthread_mutex_init(&mutex, &attributes);
  pthread_mutexattr_destroy(&attributes);
}

// Holds the mutex for a scope. For data that is valid after each single store, so that the death of the owner before
// leaves nothing to mend.
class RobustLock {
 public:
  explicit RobustLock(pthread_mutex_t& mutex) : mutex_(mutex) {
    if (pthread_mutex_lock(&mutex_) == EOWNERDEAD) pthread_mutex_consistent(&mutex_);
  }
  ~RobustLock() { pthread_mutex_unlock(&mutex_); }
  RobustLock(const RobustLock&) = delete;
  RobustLock& operator=(const RobustLock&) = delete;

 private:
  pthread_mutex_t& mutex_;
};

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_OBJECTS_ROBUST_MUTEX_H_
