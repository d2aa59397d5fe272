#include "runtime/threads/thread.h"

#include <algorithm>

namespace kestrun {

namespace {

unsigned long RunBody(rc_ptr<Functor0<void>::_DelegateBase> body) {
  (*body)();
  return 0;
}

// The milliseconds that are left of a limit that began at `start`. Unsigned, so the difference is right when the
// counter wraps.
u32 Remaining(u32 start, u32 timeoutMs) {
  if (timeoutMs == kNoLimit) return kNoLimit;
  u32 passed = GetTickCount() - start;
  return passed < timeoutMs ? timeoutMs - passed : 0;
}

}  // namespace

Thread::Thread(const std::string& name) {
  size_t length = std::min<size_t>(name.size(), kNameSize - 1);
  name.copy(name_, length);
  name_[length] = '\0';
}

Thread::Thread(Adopted) : handle_(GetCurrentThread()), id_(GetCurrentThreadId()) {
  name_[0] = '\0';
}

Thread::~Thread() {
  if (handle_ != nullptr && !IsAdopted()) CloseHandle(handle_);
}

bool Thread::IsAdopted() const {
  return handle_ == GetCurrentThread();
}

DWORD Thread::TlsSlot() {
  static const DWORD slot = TlsAlloc();
  return slot;
}

bool Thread::Start(Functor0<void>::Type body, int priority) {
  if (body_) return false;
  body_ = MakeClosure(MakeDelegate(&RunBody), body.Get());
  // The running thread's own reference, which Enter gives back.
  AddRef();
  DWORD id = 0;
  // Started suspended, so that the fields are set and the priority is in force before the body's first step.
  handle_ = CreateThread(nullptr, 0, &Thread::Enter, this, CREATE_SUSPENDED, &id);
  if (handle_ == nullptr) {
    Release();
    return false;
  }
  id_ = id;
  if (priority == kBelowNormalPriority) SetPriority(THREAD_PRIORITY_BELOW_NORMAL);
  ResumeThread(handle_);
  return true;
}

DWORD WINAPI Thread::Enter(LPVOID argument) {
  auto* thread = static_cast<Thread*>(argument);
  TlsSetValue(TlsSlot(), thread);
  auto exitCode = static_cast<DWORD>((*thread->body_)());
  TlsSetValue(TlsSlot(), nullptr);
  thread->Release();
  return exitCode;
}

rc_ptr<Thread> Thread::GetCurrent() {
  auto* current = static_cast<Thread*>(TlsGetValue(TlsSlot()));
  if (current == nullptr) {
    current = new Thread(Adopted());
    // The slot's own reference, which is never given back: the object of an adopted thread lives as long as the
    // process.
    current->AddRef();
    TlsSetValue(TlsSlot(), current);
  }
  return current;
}

bool Thread::Wait(u32 timeoutMs, u32* exitCode) {
  if (handle_ == nullptr) return false;
  if (TlsGetValue(TlsSlot()) == this) return true;
  // An adopted thread has a pseudo handle, which names whatever thread uses it; on another thread it is useless.
  if (IsAdopted()) return false;
  DWORD code = 0;
  if (WaitForSingleObject(handle_, timeoutMs) != WAIT_OBJECT_0) return false;
  if (!GetExitCodeThread(handle_, &code)) return false;
  if (exitCode != nullptr) *exitCode = code;
  return true;
}

bool Thread::WaitAll(const std::vector<rc_ptr<Thread>>& threads, u32 timeoutMs) {
  std::vector<HANDLE> handles;
  for (const auto& thread : threads) {
    if (thread->handle_ != nullptr) handles.push_back(thread->handle_);
  }
  u32 start = GetTickCount();
  // One wait takes 64 handles at most. Threads that have ended stay ended, so waiting for one batch after the other
  // gives the same answer.
  for (size_t i = 0; i < handles.size(); i += MAXIMUM_WAIT_OBJECTS) {
    auto count = static_cast<DWORD>(std::min<size_t>(handles.size() - i, MAXIMUM_WAIT_OBJECTS));
    if (WaitForMultipleObjects(count, &handles[i], TRUE, Remaining(start, timeoutMs)) == WAIT_TIMEOUT) return false;
  }
  return true;
}

void Thread::SetPriority(int priority) {
  if (handle_ != nullptr) SetThreadPriority(handle_, priority);
}

ScopedThreadPriority::ScopedThreadPriority(int priority)
    : thread_(GetCurrentThread()), remembered_(GetThreadPriority(thread_)) {
  if (remembered_ != THREAD_PRIORITY_ERROR_RETURN) SetThreadPriority(thread_, priority);
}

ScopedThreadPriority::~ScopedThreadPriority() {
  if (remembered_ != THREAD_PRIORITY_ERROR_RETURN) SetThreadPriority(thread_, remembered_);
}

}  // namespace kestrun
