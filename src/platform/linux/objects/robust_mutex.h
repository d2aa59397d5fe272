// Mutexes of the C library in memory that processes share. The kernel passes one on when its owner dies.
//
// A robust mutex must stay where it is while a thread owns it: the kernel finds a dead thread's mutexes through a list
// that runs through them.
#ifndef KESTRUN_PLATFORM_LINUX_OBJECTS_ROBUST_MUTEX_H_
#define KESTRUN_PLATFORM_LINUX_OBJECTS_ROBUST_MUTEX_H_

#include <pthread.h>
#include <sys/types.h>

#include "platform/linux/objects/deadline.h"

namespace kestrun::platform {

void InitialiseRobustMutex(pthread_mutex_t& mutex);

// Waits for the mutex until then: 0, EOWNERDEAD, ETIMEDOUT or another errno value.
int LockRobustUntil(pthread_mutex_t& mutex, const Deadline& deadline);

// The kernel's id of the thread that owns the mutex; 0 if none does, or if the C library does not tell.
pid_t OwnerThread(const pthread_mutex_t& mutex);

// Holds the mutex for a scope. For data that is valid after each single store, so that the death of the owner before
// leaves nothing to mend. False if the limit passed before the mutex was free: then its owner is stopped, most likely.
class RobustLock {
 public:
  RobustLock(pthread_mutex_t& mutex, DWORD limitMs);
  ~RobustLock();
  RobustLock(const RobustLock&) = delete;
  RobustLock& operator=(const RobustLock&) = delete;
  explicit operator bool() const { return isHeld_; }

 private:
  pthread_mutex_t& mutex_;
  bool isHeld_;
};

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_OBJECTS_ROBUST_MUTEX_H_
