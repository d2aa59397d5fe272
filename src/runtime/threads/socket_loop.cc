#include "runtime/threads/socket_loop.h"

#include <string>
#include <utility>

namespace kestrun {

// The sockets that one pass waits for.
struct SocketLoop::SocketSets {
  fd_set read;
  fd_set write;
  std::vector<ReadySocket> sockets;
};

SocketLoop::SocketLoop(u16 firstWakeupPort, ErrorListener errorListener)
    : EventLoop(std::move(errorListener)),
      firstWakeupPort_(firstWakeupPort),
      idleEvent_(CreateEventA(nullptr, FALSE, FALSE, nullptr)) {}

void SocketLoop::Prepare() {
  const Lock lock(wakeupLock_);
  if (wakeup_) return;
  wakeup_ = new SelectWakeupHandler(firstWakeupPort_);
  // The loop may be waiting for this event, because there was no socket before.
  SetEvent(idleEvent_.Get());
}

void SocketLoop::Clear() {
  EventLoop::Clear();
  rc_ptr<SelectWakeupHandler> wakeup;
  {
    const Lock lock(wakeupLock_);
    wakeup.Swap(wakeup_);
  }
  if (wakeup) wakeup->Close();
}

void SocketLoop::Wake() {
  SetEvent(idleEvent_.Get());
  WakeForHandler();
}

void SocketLoop::WakeForHandler() {
  if (const rc_ptr<SelectWakeupHandler> wakeup = GetWakeup()) wakeup->Wake();
}

std::size_t SocketLoop::GetCount() {
  return EventLoop::GetCount() + (GetWakeup() ? 1 : 0);
}

rc_ptr<SelectWakeupHandler> SocketLoop::GetWakeup() {
  const Lock lock(wakeupLock_);
  return wakeup_;
}

SocketLoop::Result SocketLoop::Wait(u32 timeoutMs) {
  Result result;
  SocketSets sets;
  if (!CollectSockets(&sets)) {
    result.isFailed = true;
    return result;
  }
  // Winsock's select refuses empty sets, so without sockets the loop waits for an event. The read set is empty only
  // then, since the pair is in it as soon as a handler was added.
  if (sets.read.fd_count == 0) {
    WaitForSingleObject(idleEvent_.Get(), timeoutMs);
    return result;
  }
  const int count = Select(&sets, timeoutMs);
  result.isFailed = count < 0;
  if (count <= 0) return result;
  const rc_ptr<SelectWakeupHandler> wakeup = GetWakeup();
  for (ReadySocket& socket : sets.sockets) {
    // Only sockets that are ready for reading are reported: no handler of the program asks for writing alone.
    if (!__WSAFDIsSet(static_cast<SOCKET>(socket.handle), &sets.read)) continue;
    if (socket.handler.Get() != wakeup.Get()) {
      result.ready.push_back(std::move(socket));
      continue;
    }
    ++result.wakeups;
    if (!wakeup->HandleEvent()) wakeup->Close();
  }
  return result;
}

// False if there are more sockets than one call of select can wait for.
bool SocketLoop::CollectSockets(SocketSets* sets) {
  FD_ZERO(&sets->read);
  FD_ZERO(&sets->write);
  std::vector<rc_ptr<EventHandler>> handlers = GetWaiting();
  if (const rc_ptr<SelectWakeupHandler> wakeup = GetWakeup()) handlers.push_back(wakeup);
  for (const rc_ptr<EventHandler>& handler : handlers) {
    const int handle = handler->GetHandle();
    if (handle == EventHandler::kNoHandle) continue;
    const u32 events = handler->GetEvents();
    if ((events & EventHandler::kRead) != 0) FD_SET(static_cast<SOCKET>(handle), &sets->read);
    if ((events & EventHandler::kWrite) != 0) FD_SET(static_cast<SOCKET>(handle), &sets->write);
    sets->sockets.push_back({handler, handle});
    if (sets->read.fd_count < FD_SETSIZE) continue;
    TellError("Too many socket-descriptors!");
    return false;
  }
  return true;
}

// The number of sockets that are ready, to which the sets are reduced; -1 on failure.
int SocketLoop::Select(SocketSets* sets, u32 timeoutMs) {
  timeval limit;
  limit.tv_sec = static_cast<long>(timeoutMs / 1000);
  limit.tv_usec = static_cast<long>(timeoutMs % 1000 * 1000);
  const int ready = select(0, &sets->read, &sets->write, nullptr, &limit);
  if (ready != SOCKET_ERROR) return ready;
  const int error = WSAGetLastError();
  // Another thread has closed a socket meanwhile, which the next pass leaves out.
  if (error == WSAENOTSOCK) return 0;
  TellError("select() failed - error=" + std::to_string(error) + "\n");
  return -1;
}

}  // namespace kestrun
