#include "runtime/threads/sync.h"

namespace kestrun {

namespace {

bool IsTaken(DWORD waitResult) {
  return waitResult == WAIT_OBJECT_0 || waitResult == WAIT_ABANDONED;
}

// The event of that name if it exists, a new auto-reset event otherwise; null on failure.
HANDLE OpenOrCreateEvent(const char* name) {
  HANDLE event = name == nullptr ? nullptr : OpenEventA(EVENT_ALL_ACCESS, FALSE, name);
  return event != nullptr ? event : CreateEventA(SharedSecurityAttributes(), FALSE, FALSE, name);
}

}  // namespace

SECURITY_ATTRIBUTES* SharedSecurityAttributes() {
  static SECURITY_ATTRIBUTES attributes = {sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
  return &attributes;
}

bool WaitForHandle(HANDLE handle, u32 timeoutMs) {
  return IsTaken(WaitForSingleObject(handle, timeoutMs));
}

Mutex::Mutex(const char* name, SECURITY_ATTRIBUTES* attributes) {
  Init(name, attributes);
}

void Mutex::Init(const char* name, SECURITY_ATTRIBUTES* attributes) {
  if (name != nullptr) handle_.Reset(OpenMutexA(MUTEX_ALL_ACCESS, FALSE, name));
  if (handle_) return;
  if (attributes == nullptr) attributes = SharedSecurityAttributes();
  handle_.Reset(CreateMutexA(attributes, FALSE, name));
  // Another process may have created it since the attempt to open it.
  isCreated_ = handle_ && GetLastError() != ERROR_ALREADY_EXISTS;
  if (!handle_) throw SyncException("CreateMutex() failed in Mutex::Init()");
}

bool Mutex::Lock(u32 timeoutMs) {
  return WaitForHandle(handle_.Get(), timeoutMs);
}

bool Mutex::Unlock() {
  return ReleaseMutex(handle_.Get()) != FALSE;
}

Semaphore::Semaphore(i32 count, const char* name)
    : count_(count), handle_(CreateSemaphoreA(SharedSecurityAttributes(), count, count, name)) {
  if (!handle_) {
    throw SyncException(static_cast<i32>(GetLastError()), "CreateSemaphore() failed in Semaphore ctor");
  }
}

bool Semaphore::Release() {
  return ReleaseSemaphore(handle_.Get(), 1, nullptr) != FALSE;
}

Condition::Condition(const char* name) {
  Init(name);
}

void Condition::Init(const char* name) {
  if (name != nullptr) name_ = name;
  handle_.Reset(OpenOrCreateEvent(name));
  if (!handle_) throw SyncException("CreateEvent() failed in Condition::Init()");
}

bool Condition::Signal() {
  return SetEvent(handle_.Get()) != FALSE;
}

ConditionVariable::ConditionVariable(const char* name) {
  Init(name);
}

void ConditionVariable::Init(const char* name) {
  handle_.Reset(OpenOrCreateEvent(name));
  if (!handle_) throw SyncException("CreateEvent() failed in ConditionVariable::Init()");
}

bool ConditionVariable::Signal() {
  return SetEvent(handle_.Get()) != FALSE;
}

bool ConditionVariable::Wait(CriticalSection& lock, u32 timeoutMs) {
  // Not one step: a signal between the two is kept by the event, so it is not lost.
  lock.Leave();
  bool signalled = WaitForHandle(handle_.Get(), timeoutMs);
  lock.Enter();
  return signalled;
}

bool ConditionVariable::Wait(Mutex& lock, u32 timeoutMs) {
  // One step: the mutex is released and the wait begins. With a mutex that other processes share, a signal meant for
  // this waiter could otherwise be taken by another that comes in between.
  bool signalled = IsTaken(SignalObjectAndWait(lock.GetHandle(), handle_.Get(), timeoutMs, FALSE));
  if (!lock.Lock(kNoLimit)) throw SyncException("Mutex::Wait() could not re-acquire mutex object.");
  return signalled;
}

}  // namespace kestrun
