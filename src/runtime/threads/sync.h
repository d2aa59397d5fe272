// Kernel objects by which threads and processes meet: mutex, semaphore, and two forms of an auto-reset event.
//
// A name makes an object visible to the other processes of the user; a null name keeps it private. Mutex, Condition
// and ConditionVariable open the object of their name if there is one and create it otherwise, so that either side may
// come first; Semaphore is created by one side, and the others open it with OpenSemaphoreA. An object lives as long
// as some process holds a handle on it.
//
// Constructors throw SyncException; the wait operations answer with a bool. All classes own their handle, may be used
// by several threads at once, and must outlive the waits on them. Timeouts are milliseconds, kNoLimit waits for ever.
// IsCreated, Semaphore::GetCount and Condition::GetName are offered to users of the library; the program itself does
// not ask for them.
#ifndef KESTRUN_RUNTIME_THREADS_SYNC_H_
#define KESTRUN_RUNTIME_THREADS_SYNC_H_

#include <string>

#include "platform/win32.h"
#include "runtime/base/critical_section.h"
#include "runtime/base/exception.h"
#include "runtime/base/handle.h"
#include "runtime/base/types.h"

namespace kestrun {

class SyncException : public SystemException {
 public:
  explicit SyncException(const std::string& message) : SystemException(message, "SyncException") {}
  SyncException(i32 code, const std::string& message) : SystemException(code, message, "SyncException") {}
};

// The attributes with which every shared object is created: default security, handle inheritable.
SECURITY_ATTRIBUTES* SharedSecurityAttributes();

// WaitForSingleObject as a bool: true if the object was signalled, or is a mutex whose holder has died.
bool WaitForHandle(HANDLE handle, u32 timeoutMs);

// A recursive lock between processes; each Lock needs its Unlock. When a holder dies, the next thread that waits gets
// the lock as if it had been released.
class Mutex {
 public:
  explicit Mutex(const char* name = nullptr, SECURITY_ATTRIBUTES* attributes = nullptr);
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  bool Lock(u32 timeoutMs);
  // False if this thread does not hold it.
  bool Unlock();

  // True if the object did not exist before.
  bool IsCreated() const { return isCreated_; }
  HANDLE GetHandle() const { return handle_.Get(); }

 private:
  void Init(const char* name, SECURITY_ATTRIBUTES* attributes);

  UniqueHandle handle_;
  bool isCreated_ = false;
};

// Holds a mutex for a scope.
class MutexLock {
 public:
  explicit MutexLock(Mutex* mutex) : mutex_(mutex) { mutex_->Lock(kNoLimit); }
  ~MutexLock() { mutex_->Unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex* mutex_;
};

// Opens or creates the mutex of a name and holds it for a scope.
class NamedMutexLock {
 public:
  explicit NamedMutexLock(const std::string& name) : mutex_(name.c_str()), lock_(&mutex_) {}

 private:
  Mutex mutex_;
  MutexLock lock_;
};

// A count of slots. The constructor creates it with all slots free (a name that exists already gives the existing
// object with the slots it has). Release fails when all slots are free.
class Semaphore {
 public:
  Semaphore(i32 count, const char* name);
  Semaphore(const Semaphore&) = delete;
  Semaphore& operator=(const Semaphore&) = delete;

  // Takes a slot.
  bool Wait(u32 timeoutMs) { return WaitForHandle(handle_.Get(), timeoutMs); }
  // Gives a slot back.
  bool Release();

  i32 GetCount() const { return count_; }
  HANDLE GetHandle() const { return handle_.Get(); }

 private:
  i32 count_;
  UniqueHandle handle_;
};

// An auto-reset event: a signal lets one waiter pass, the present one or the next to come. Signals do not add up.
class Condition {
 public:
  explicit Condition(const char* name = nullptr);
  Condition(const Condition&) = delete;
  Condition& operator=(const Condition&) = delete;

  bool Signal();
  bool Wait(u32 timeoutMs) { return WaitForHandle(handle_.Get(), timeoutMs); }

  const std::string& GetName() const { return name_; }
  HANDLE GetHandle() const { return handle_.Get(); }

 private:
  void Init(const char* name);

  UniqueHandle handle_;
  std::string name_;
};

// The same event, for a thread that holds a lock, which the wait releases. There is no broadcast and a signal is kept
// until a waiter passes, so a waiter tests its predicate in a loop, and one that leaves work behind for another waiter
// signals again. Both waits hold the lock again when they return, also after a timeout.
class ConditionVariable {
 public:
  explicit ConditionVariable(const char* name = nullptr);
  ConditionVariable(const ConditionVariable&) = delete;
  ConditionVariable& operator=(const ConditionVariable&) = delete;

  bool Signal();

  // Leaves the section, waits, enters it again.
  bool Wait(CriticalSection& lock, u32 timeoutMs);

  // Releases the mutex and starts to wait in one step, so that no signal falls between the two. Throws SyncException
  // if the mutex can not be taken again.
  bool Wait(Mutex& lock, u32 timeoutMs);

  HANDLE GetHandle() const { return handle_.Get(); }

 private:
  void Init(const char* name);

  UniqueHandle handle_;
};

}  // namespace kestrun

#endif  // KESTRUN_RUNTIME_THREADS_SYNC_H_
