#include "runtime/reactor.h"

#include <algorithm>
#include <cstdio>
#include <map>

#include "platform/host.h"
#include "runtime/select_wakeup_handler.h"

namespace kestrun {

namespace {

constexpr int kNoHandle = -1;
// How often one pass of the wait loop collects its handles anew because one of them was closed meanwhile.
constexpr int kWaitAttempts = 3;

std::string Hexadecimal(HANDLE handle) {
  char text[16];
  std::snprintf(text, sizeof(text), "%x", static_cast<unsigned>(platform::HandleToInt(handle)));
  return text;
}

}  // namespace

// What one pass of the wait loop waits for; the wake event has index 0, so that it goes before every handler.
struct Reactor::WaitTable {
  HANDLE handles[MAXIMUM_WAIT_OBJECTS];
  u32 count = 0;
  std::map<HANDLE, rc_ptr<EventHandler>> handlers;
};

Reactor::Reactor(u32 poolThreads, u16 firstWakeupPort)
    : pool_("Reactor"),
      firstWakeupPort_(firstWakeupPort),
      wakeEvent_(CreateEventA(nullptr, FALSE, FALSE, nullptr)),
      idleEvent_(CreateEventA(nullptr, FALSE, FALSE, nullptr)) {
  pool_.Start(poolThreads);
}

Reactor::~Reactor() {
  Shutdown();
}

bool Reactor::Register(EventHandler* handler) {
  if (handler == nullptr || IsWakeup(handler)) return false;
  switch (handler->GetHandleType()) {
    case kSelectable:
      return RegisterSelectable(handler);
    case kWaitable:
      return RegisterWaitable(handler);
    default:
      return false;
  }
}

bool Reactor::RegisterSelectable(EventHandler* handler) {
  Lock lock(selectableLock_);
  if (selectable_.empty()) {
    wakeup_ = new SelectWakeupHandler(firstWakeupPort_);
    selectable_.insert(wakeup_);
    // The loop may be asleep without a socket to wake it by.
    SetEvent(idleEvent_.Get());
  }
  selectable_.insert(handler);
  wakeup_->Wake();
  return true;
}

bool Reactor::RegisterWaitable(EventHandler* handler) {
  if ((handler->GetEvents() & kWrite) != 0) return false;
  Lock lock(waitableLock_);
  waitable_.insert(handler);
  // The wait loop itself comes to its next pass anyway.
  if (waitLoop_ != GetCurrentThreadId()) SetEvent(wakeEvent_.Get());
  return true;
}

bool Reactor::Unregister(EventHandler* handler) {
  if (handler == nullptr || !Claim(handler)) return false;
  // A wait that is under way gives up the handle before its number can stand for something else.
  if (handler->GetHandleType() == kWaitable) SetEvent(wakeEvent_.Get());
  return true;
}

// Takes a handler out of its set: whoever gets it here is the one that may call it.
bool Reactor::Claim(EventHandler* handler) {
  rc_ptr<EventHandler> held(handler);
  {
    Lock lock(selectableLock_);
    if (wakeup_.Get() == handler) return false;
    if (selectable_.erase(held) > 0) return true;
  }
  Lock lock(waitableLock_);
  return waitable_.erase(held) > 0;
}

bool Reactor::IsRunning() {
  Lock lock(runLock_);
  return running_;
}

bool Reactor::RunSelectLoop(int timeoutMs) {
  while (IsRunning()) {
    if (SelectOnce(timeoutMs) < 0) return false;
  }
  return true;
}

bool Reactor::RunWaitLoop(int timeoutMs) {
  waitLoop_ = GetCurrentThreadId();
  bool isWell = true;
  while (isWell && IsRunning()) isWell = WaitForOneEvent(timeoutMs) >= 0;
  waitLoop_ = 0;
  return isWell;
}

int Reactor::SelectOnce(int timeoutMs) {
  fd_set read;
  fd_set write;
  if (!CollectSockets(&read, &write)) return -1;
  int ready = 0;
  u32 sleepMs = BeginSelectSleep(timeoutMs);
  if (read.fd_count == 0) {
    WaitForSingleObject(idleEvent_.Get(), sleepMs);
  } else {
    ready = WaitForSockets(&read, &write, static_cast<int>(sleepMs));
  }
  EndSelectSleep();
  if (ready < 0) return -1;
  int dispatched = ready > 0 ? DispatchReady(&read) : 0;
  ProcessTimeouts();
  return dispatched;
}

bool Reactor::CollectSockets(fd_set* read, fd_set* write) {
  FD_ZERO(read);
  FD_ZERO(write);
  Lock lock(selectableLock_);
  for (const auto& handler : selectable_) {
    int handle = handler->GetHandle();
    if (handle != kNoHandle) {
      u32 events = handler->GetEvents();
      if ((events & kRead) != 0) FD_SET(static_cast<SOCKET>(handle), read);
      if ((events & kWrite) != 0) FD_SET(static_cast<SOCKET>(handle), write);
    }
    if (read->fd_count == FD_SETSIZE) {
      TellError("Too many socket-descriptors!");
      return false;
    }
  }
  return true;
}

// The number of sockets that are ready, with their sets reduced to them; -1 on failure.
int Reactor::WaitForSockets(fd_set* read, fd_set* write, int timeoutMs) {
  timeval limit;
  limit.tv_sec = timeoutMs / 1000;
  limit.tv_usec = timeoutMs % 1000 * 1000;
  int ready = select(0, read, write, nullptr, &limit);
  if (ready != SOCKET_ERROR) return ready;
  int error = WSAGetLastError();
  // Another thread has closed a socket meanwhile: the next pass goes without it.
  if (error == WSAENOTSOCK) return 0;
  TellError("select() failed - error=" + std::to_string(error) + "\n");
  return -1;
}

int Reactor::DispatchReady(fd_set* read) {
  std::vector<rc_ptr<EventHandler>> handlers;
  {
    Lock lock(selectableLock_);
    handlers.assign(selectable_.begin(), selectable_.end());
  }
  int count = 0;
  for (const auto& handler : handlers) {
    int handle = handler->GetHandle();
    if (handle == kNoHandle || !__WSAFDIsSet(static_cast<SOCKET>(handle), read)) continue;
    if (IsWakeup(handler.Get())) {
      Dispatch(handler);
    } else if (Claim(handler.Get())) {
      DispatchOrQueue(handler);
    } else {
      continue;
    }
    ++count;
  }
  return count;
}

int Reactor::WaitForOneEvent(int timeoutMs) {
  WaitTable table;
  DWORD result = WAIT_FAILED;
  DWORD error = ERROR_INVALID_HANDLE;
  // A handler may be closed between the look at its handle and the wait; the next look sees that.
  for (int i = 0; i < kWaitAttempts && result == WAIT_FAILED && error == ERROR_INVALID_HANDLE; ++i) {
    CollectHandles(&table);
    result = WaitForMultipleObjects(table.count, table.handles, FALSE, static_cast<DWORD>(timeoutMs));
    error = GetLastError();
  }
  if (result == WAIT_TIMEOUT) return 0;
  if (result == WAIT_FAILED) {
    TellError("Reactor::WaitForOneEvent() - WaitForMultipleObjects() failed - error=" + std::to_string(error));
    return -1;
  }
  // A mutex whose holder died is as good as one that was given back.
  u32 index = result >= WAIT_ABANDONED_0 ? result - WAIT_ABANDONED_0 : result - WAIT_OBJECT_0;
  return index == 0 ? 1 : DispatchSignalled(table, index);
}

void Reactor::CollectHandles(WaitTable* table) {
  table->handlers.clear();
  table->handles[0] = wakeEvent_.Get();
  table->count = 1;
  Lock lock(waitableLock_);
  for (const auto& handler : waitable_) {
    if (table->count == MAXIMUM_WAIT_OBJECTS) {
      TellError("Reactor::WaitForOneEvent() - max wait handles exceeded!");
      return;
    }
    int handle = kNoHandle;
    try {
      handle = handler->GetHandle();
    } catch (const SystemException& failure) {
      TellError(failure.what());
      return;
    }
    if (handle == kNoHandle) continue;
    table->handles[table->count++] = platform::IntToHandle(handle);
    table->handlers[platform::IntToHandle(handle)] = handler;
  }
}

int Reactor::DispatchSignalled(const WaitTable& table, u32 index) {
  HANDLE handle = table.handles[index];
  auto found = table.handlers.find(handle);
  if (found == table.handlers.end()) {
    TellError("Reactor::WaitForOneEvent() - could not find handle 0x" + Hexadecimal(handle) + " in waiting set!");
    return -1;
  }
  if (Claim(found->second.Get())) DispatchOrQueue(found->second);
  return 1;
}

void Reactor::DispatchOrQueue(const rc_ptr<EventHandler>& handler) {
  if (handler->UsesThreadPool()) {
    pool_.Queue(MakeClosure(MakeDelegate(&Reactor::Dispatch, this), handler), false);
  } else {
    Dispatch(handler);
  }
}

void Reactor::Dispatch(rc_ptr<EventHandler> handler) {
  bool ok = false;
  try {
    ok = handler->HandleEvent();
  } catch (const SystemException&) {
  }
  if (!ok) {
    handler->Close();
    TellClosed(handler.Get());
  } else if (!IsWakeup(handler.Get()) && !Register(handler.Get())) {
    TellError("Could not register input handle");
  }
}

void Reactor::Stop() {
  {
    Lock lock(runLock_);
    if (!running_) return;
    running_ = false;
  }
  WakeSelectLoop();
  SetEvent(wakeEvent_.Get());
}

void Reactor::WakeSelectLoop() {
  SetEvent(idleEvent_.Get());
  if (rc_ptr<SelectWakeupHandler> wakeup = GetWakeup()) wakeup->Wake();
}

bool Reactor::StopThreadPool() {
  return pool_.Stop(pool_.kStopTimeoutMs);
}

void Reactor::Shutdown() {
  StopThreadPool();
  if (rc_ptr<SelectWakeupHandler> wakeup = GetWakeup()) wakeup->Close();
  // Released outside the locks: a handler's destructor may do anything.
  HandlerSet selectable;
  HandlerSet waitable;
  {
    Lock lock(selectableLock_);
    selectable.swap(selectable_);
    wakeup_.Reset();
  }
  Lock lock(waitableLock_);
  waitable.swap(waitable_);
}

bool Reactor::AddTimeout(TimeoutHandler* handler, u32 delayMs) {
  u32 due = GetTickCount() + delayMs;
  bool sleepsTooLong = false;
  {
    Lock lock(timeoutsLock_);
    auto entry = std::find_if(timeouts_.begin(), timeouts_.end(),
                              [&](const auto& timeout) { return timeout.first.Get() == handler; });
    if (entry != timeouts_.end()) {
      entry->second = due;
    } else {
      timeouts_.emplace_back(handler, due);
    }
    sleepsTooLong = sleeping_ && !IsDue(due, sleepEnd_);
    if (sleepsTooLong) sleepEnd_ = due;
  }
  if (sleepsTooLong) WakeSelectLoop();
  return true;
}

bool Reactor::CancelTimeout(TimeoutHandler* handler) {
  rc_ptr<TimeoutHandler> cancelled;
  Lock lock(timeoutsLock_);
  for (auto entry = timeouts_.begin(); entry != timeouts_.end(); ++entry) {
    if (entry->first.Get() != handler) continue;
    cancelled = entry->first;
    timeouts_.erase(entry);
    return true;
  }
  return false;
}

// How long the select loop may wait: until the next timeout, at most `limitMs`.
u32 Reactor::BeginSelectSleep(int limitMs) {
  Lock lock(timeoutsLock_);
  u32 now = GetTickCount();
  sleepEnd_ = now + static_cast<u32>(std::max(limitMs, 0));
  for (const auto& timeout : timeouts_) {
    if (!IsDue(timeout.second, sleepEnd_)) sleepEnd_ = timeout.second;
  }
  sleeping_ = true;
  return IsDue(now, sleepEnd_) ? 0 : sleepEnd_ - now;
}

void Reactor::EndSelectSleep() {
  Lock lock(timeoutsLock_);
  sleeping_ = false;
}

void Reactor::ProcessTimeouts() {
  u32 now = GetTickCount();
  Timeouts taken;
  Timeouts later;
  {
    Lock lock(timeoutsLock_);
    taken.swap(timeouts_);
  }
  for (auto& timeout : taken) {
    if (IsDue(now, timeout.second)) {
      timeout.first->OnTimeout();
    } else {
      later.push_back(std::move(timeout));
    }
  }
  Lock lock(timeoutsLock_);
  timeouts_.insert(timeouts_.end(), later.begin(), later.end());
}

void Reactor::AddErrorListener(ErrorListener listener) {
  Lock lock(listenersLock_);
  errorListeners_.push_back(std::move(listener));
}

void Reactor::AddCloseListener(CloseListener listener) {
  Lock lock(listenersLock_);
  closeListeners_.insert(std::move(listener));
}

std::string Reactor::GetStatus() {
  size_t selectable, waitable, timeouts;
  {
    Lock lock(selectableLock_);
    selectable = selectable_.size();
  }
  {
    Lock lock(waitableLock_);
    waitable = waitable_.size();
  }
  {
    Lock lock(timeoutsLock_);
    timeouts = timeouts_.size();
  }
  return "Reactor: selectable=" + std::to_string(selectable) + " waitable=" + std::to_string(waitable) +
         " timeouts=" + std::to_string(timeouts);
}

bool Reactor::IsWakeup(const EventHandler* handler) {
  Lock lock(selectableLock_);
  return wakeup_ && wakeup_.Get() == handler;
}

rc_ptr<Reactor::SelectWakeupHandler> Reactor::GetWakeup() {
  Lock lock(selectableLock_);
  return wakeup_;
}

void Reactor::TellError(const std::string& text) {
  std::vector<ErrorListener> listeners;
  {
    Lock lock(listenersLock_);
    listeners = errorListeners_;
  }
  for (const auto& listener : listeners) (*listener)(text);
}

void Reactor::TellClosed(EventHandler* handler) {
  std::set<CloseListener> listeners;
  {
    Lock lock(listenersLock_);
    listeners = closeListeners_;
  }
  for (const auto& listener : listeners) (*listener)(handler);
}

}  // namespace kestrun
