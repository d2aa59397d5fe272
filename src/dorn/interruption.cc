#include "dorn/interruption.h"

#include <atomic>

#include "runtime/sync.h"

namespace kestrun::dorn {

namespace {

constexpr DWORD kLongestEndMs = 5000;

std::atomic<HANDLE> interrupted{nullptr};

}  // namespace

Interruption::Interruption() : event_(CreateEventA(nullptr, TRUE, FALSE, nullptr)) {
  if (!event_) throw SyncException(static_cast<i32>(GetLastError()), "CreateEvent() failed in Interruption");
  interrupted = event_.Get();
  SetConsoleCtrlHandler(OnControlEvent, TRUE);
}

BOOL WINAPI Interruption::OnControlEvent(DWORD type) {
  SetEvent(interrupted);
  if (type >= CTRL_CLOSE_EVENT) Sleep(kLongestEndMs);
  return TRUE;
}

}  // namespace kestrun::dorn
