#include "dorn/interruption.h"

#include <atomic>

#include "runtime/threads/sync.h"

namespace kestrun::dorn {

namespace {

constexpr DWORD kLongestEndMs = 5000;

// Global, because the system gives a handler nothing but the type of the event.
std::atomic<HANDLE> interrupted{nullptr};
std::atomic<DWORD> firstType{CTRL_C_EVENT};

}  // namespace

Interruption::Interruption() : event_(CreateEventA(nullptr, TRUE, FALSE, nullptr)) {
  if (!event_) throw SyncException(static_cast<i32>(GetLastError()), "CreateEvent() failed in Interruption");
  interrupted = event_.Get();
  SetConsoleCtrlHandler(OnControlEvent, TRUE);
}

DWORD Interruption::GetType() const {
  return firstType;
}

bool Interruption::HasReachedAll() const {
  return firstType == CTRL_C_EVENT;
}

BOOL WINAPI Interruption::OnControlEvent(DWORD type) {
  // The type is stored before the event is signalled, so that a thread that sees the event finds the type.
  if (WaitForSingleObject(interrupted, 0) != WAIT_OBJECT_0) firstType = type;
  SetEvent(interrupted);
  if (type >= CTRL_CLOSE_EVENT) Sleep(kLongestEndMs);
  return TRUE;
}

}  // namespace kestrun::dorn
