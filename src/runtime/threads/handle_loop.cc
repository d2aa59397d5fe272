// The wait loop's set of handles is built anew for each wait: at most 63 handlers, which is cheaper to do than to keep
// a list in step with handlers that come and go on other threads.
#include "runtime/threads/handle_loop.h"

#include <string>
#include <utility>

#include "platform/host.h"
#include "runtime/base/exception.h"

namespace kestrun {

namespace {

// How often one pass collects its handles again because one of them was closed meanwhile.
constexpr int kWaitAttempts = 3;

}  // namespace

// The objects that one pass waits for. Index 0 is the wake event, which has no handler. The table holds references, so
// that no handler is destroyed during the wait.
struct HandleLoop::WaitTable {
  HANDLE handles[MAXIMUM_WAIT_OBJECTS];
  rc_ptr<EventHandler> handlers[MAXIMUM_WAIT_OBJECTS];
  u32 count = 0;
};

HandleLoop::HandleLoop(ErrorListener errorListener)
    : EventLoop(std::move(errorListener)), wakeEvent_(CreateEventA(nullptr, FALSE, FALSE, nullptr)) {}

bool HandleLoop::Accepts(EventHandler* handler) {
  return (handler->GetEvents() & EventHandler::kWrite) == 0;
}

bool HandleLoop::Remove(const rc_ptr<EventHandler>& handler) {
  if (!EventLoop::Remove(handler)) return false;
  // Ends a wait that is under way, so that it does not go on waiting for a handle whose number may soon stand for
  // another object.
  Wake();
  return true;
}

void HandleLoop::Wake() {
  SetEvent(wakeEvent_.Get());
}

void HandleLoop::WakeForHandler() {
  // On the loop's own thread no wait is under way, and the next pass sees the handler.
  if (threadId_ != GetCurrentThreadId()) Wake();
}

HandleLoop::Outcome HandleLoop::Wait(u32 timeoutMs, rc_ptr<EventHandler>& signalled) {
  WaitTable table;
  DWORD result = WAIT_FAILED;
  DWORD error = ERROR_INVALID_HANDLE;
  // Another thread may close a handler after its handle was collected and before the wait. The wait then fails, and the
  // handles are collected again.
  for (int i = 0; i < kWaitAttempts && result == WAIT_FAILED && error == ERROR_INVALID_HANDLE; ++i) {
    CollectHandles(&table);
    result = WaitForMultipleObjects(table.count, table.handles, FALSE, timeoutMs);
    error = GetLastError();
  }
  if (result == WAIT_TIMEOUT) return Outcome::kTimedOut;
  if (result == WAIT_FAILED) {
    TellError("Reactor::WaitForOneEvent() - WaitForMultipleObjects() failed - error=" + std::to_string(error));
    return Outcome::kFailed;
  }
  // A mutex whose holder died counts as signalled.
  const u32 index = result >= WAIT_ABANDONED_0 ? result - WAIT_ABANDONED_0 : result - WAIT_OBJECT_0;
  signalled = table.handlers[index];
  return Outcome::kEvent;
}

void HandleLoop::CollectHandles(WaitTable* table) {
  table->handles[0] = wakeEvent_.Get();
  table->count = 1;
  for (rc_ptr<EventHandler>& handler : GetWaiting()) {
    if (table->count == MAXIMUM_WAIT_OBJECTS) {
      TellError("Reactor::WaitForOneEvent() - max wait handles exceeded!");
      return;
    }
    int handle = EventHandler::kNoHandle;
    try {
      handle = handler->GetHandle();
    } catch (const SystemException& failure) {
      TellError(failure.what());
      return;
    }
    if (handle == EventHandler::kNoHandle) continue;
    table->handles[table->count] = platform::IntToHandle(handle);
    table->handlers[table->count++] = std::move(handler);
  }
}

}  // namespace kestrun
