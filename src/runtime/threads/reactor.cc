#include "runtime/threads/reactor.h"

#include <utility>

namespace kestrun {

Reactor::Reactor(u32 poolThreads, u16 firstWakeupPort)
    : sockets_(firstWakeupPort, MakeDelegate(&Reactor::TellError, this)),
      handles_(MakeDelegate(&Reactor::TellError, this)),
      pool_("Reactor") {
  pool_.Start(poolThreads);
}

Reactor::~Reactor() {
  Shutdown();
}

EventLoop* Reactor::LoopOf(EventHandler* handler) {
  switch (handler->GetHandleType()) {
    case kSelectable:
      return &sockets_;
    case kWaitable:
      return &handles_;
    default:
      return nullptr;
  }
}

bool Reactor::Register(const rc_ptr<EventHandler>& handler) {
  EventLoop* const loop = handler ? LoopOf(handler.Get()) : nullptr;
  return loop != nullptr && loop->Add(handler);
}

bool Reactor::Unregister(const rc_ptr<EventHandler>& handler) {
  EventLoop* const loop = handler ? LoopOf(handler.Get()) : nullptr;
  return loop != nullptr && loop->Remove(handler);
}

bool Reactor::RunSelectLoop(int timeoutMs) {
  while (isRunning_) {
    if (SelectOnce(timeoutMs) < 0) return false;
  }
  return true;
}

bool Reactor::RunWaitLoop(int timeoutMs) {
  handles_.SetThread(GetCurrentThreadId());
  bool isWell = true;
  while (isWell && isRunning_) isWell = WaitForOneEvent(timeoutMs) >= 0;
  handles_.SetThread(0);
  return isWell;
}

int Reactor::SelectOnce(int timeoutMs) {
  // The list of timeouts knows when this sleep ends, so that a new timeout only wakes the loop if it comes earlier.
  const SocketLoop::Result result = sockets_.Wait(timeouts_.BeginSleep(timeoutMs));
  timeouts_.EndSleep();
  if (result.isFailed) return -1;
  const int dispatched = DispatchReady(result);
  timeouts_.RunDue();
  return dispatched;
}

int Reactor::DispatchReady(const SocketLoop::Result& result) {
  int count = result.wakeups;
  for (const auto& [handler, handle] : result.ready) {
    // A handler that was called before in this loop may have closed this one, or replaced its socket.
    if (handler->GetHandle() == handle && sockets_.BeginCall(handler)) count += DispatchOrQueue(handler);
  }
  return count;
}

int Reactor::WaitForOneEvent(int timeoutMs) {
  rc_ptr<EventHandler> signalled;
  switch (handles_.Wait(static_cast<u32>(timeoutMs), signalled)) {
    case HandleLoop::Outcome::kTimedOut:
      return 0;
    case HandleLoop::Outcome::kFailed:
      return -1;
    default:
      if (signalled && handles_.BeginCall(signalled)) DispatchOrQueue(signalled);
      return 1;
  }
}

// False if the handler was neither called nor queued.
bool Reactor::DispatchOrQueue(const rc_ptr<EventHandler>& handler) {
  if (!handler->UsesThreadPool()) {
    Dispatch(handler);
    return true;
  }
  if (pool_.Queue(MakeClosure(MakeDelegate(&Reactor::Dispatch, this), handler), false)) return true;
  // The pool is stopped. The handler is not called on this thread in its place, because callers of StopThreadPool rely
  // on no handler of the pool running afterwards.
  Finish(handler);
  return false;
}

void Reactor::Dispatch(rc_ptr<EventHandler> handler) {
  bool isKept = false;
  try {
    isKept = handler->HandleEvent() && !handler->IsClosed();
  } catch (const SystemException&) {
  }
  if (!isKept) {
    Finish(handler);
    return;
  }
  EventLoop* const loop = LoopOf(handler.Get());
  // A handler may have changed what it waits for.
  const bool isAccepted = loop->Accepts(handler.Get());
  loop->EndCall(handler, isAccepted);
  if (!isAccepted) TellError("Could not register input handle");
}

// Ends a call after which the handler is not waited for again: it is closed, and the close listeners are told.
void Reactor::Finish(const rc_ptr<EventHandler>& handler) {
  LoopOf(handler.Get())->EndCall(handler, false);
  handler->Close();
  TellClosed(handler.Get());
}

void Reactor::Stop() {
  if (!isRunning_.exchange(false)) return;
  sockets_.Wake();
  handles_.Wake();
}

bool Reactor::StopThreadPool() {
  return pool_.Stop(pool_.kStopTimeoutMs);
}

void Reactor::Shutdown() {
  StopThreadPool();
  sockets_.Clear();
  handles_.Clear();
}

bool Reactor::AddTimeout(const rc_ptr<TimeoutHandler>& handler, u32 delayMs) {
  if (timeouts_.Add(handler, delayMs)) sockets_.Wake();
  return true;
}

bool Reactor::CancelTimeout(const rc_ptr<TimeoutHandler>& handler) {
  return timeouts_.Cancel(handler);
}

void Reactor::AddErrorListener(ErrorListener listener) {
  const Lock lock(listenersLock_);
  errorListeners_.push_back(std::move(listener));
}

void Reactor::AddCloseListener(CloseListener listener) {
  const Lock lock(listenersLock_);
  closeListeners_.insert(std::move(listener));
}

std::string Reactor::GetStatus() {
  return "Reactor: selectable=" + std::to_string(sockets_.GetCount()) +
         " waitable=" + std::to_string(handles_.GetCount()) + " timeouts=" + std::to_string(timeouts_.GetCount());
}

void Reactor::TellError(std::string text) {
  // Copied, so that a listener may add listeners or call the Reactor.
  std::vector<ErrorListener> listeners;
  {
    const Lock lock(listenersLock_);
    listeners = errorListeners_;
  }
  for (const auto& listener : listeners) (*listener)(text);
}

void Reactor::TellClosed(EventHandler* handler) {
  std::set<CloseListener> listeners;
  {
    const Lock lock(listenersLock_);
    listeners = closeListeners_;
  }
  for (const auto& listener : listeners) (*listener)(handler);
}

}  // namespace kestrun
