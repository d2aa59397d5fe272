#include "runtime/threads/event_loop.h"

#include <algorithm>
#include <utility>

namespace kestrun {

EventLoop::EventLoop(ErrorListener errorListener) : errorListener_(std::move(errorListener)) {}

bool EventLoop::Add(const rc_ptr<EventHandler>& handler) {
  if (!Accepts(handler.Get())) return false;
  Prepare();
  {
    const Lock lock(lock_);
    const auto [entry, isNew] = handlers_.emplace(handler, State::kWaiting);
    // Added again while a call is under way: the call's end makes it wait again, as if it had never been removed.
    if (!isNew && entry->second == State::kRemoved) entry->second = State::kCalled;
  }
  WakeForHandler();
  return true;
}

bool EventLoop::Remove(const rc_ptr<EventHandler>& handler) {
  const Lock lock(lock_);
  const auto entry = handlers_.find(handler);
  if (entry == handlers_.end()) return false;
  if (entry->second == State::kWaiting) {
    // The caller still has a reference, so no destructor runs under the lock.
    handlers_.erase(entry);
    return true;
  }
  entry->second = State::kRemoved;
  return false;
}

void EventLoop::Clear() {
  // Declared before the lock, so that the handlers are released after it: their destructors may take any lock.
  std::map<rc_ptr<EventHandler>, State> released;
  const Lock lock(lock_);
  released.swap(handlers_);
}

bool EventLoop::BeginCall(const rc_ptr<EventHandler>& handler) {
  const Lock lock(lock_);
  const auto entry = handlers_.find(handler);
  if (entry == handlers_.end() || entry->second != State::kWaiting) return false;
  entry->second = State::kCalled;
  return true;
}

bool EventLoop::EndCall(const rc_ptr<EventHandler>& handler, bool isKept) {
  {
    const Lock lock(lock_);
    const auto entry = handlers_.find(handler);
    if (entry == handlers_.end()) return false;
    // The caller holds a reference, so erasing runs no destructor here.
    if (!isKept || entry->second == State::kRemoved) {
      handlers_.erase(entry);
      return false;
    }
    entry->second = State::kWaiting;
  }
  WakeForHandler();
  return true;
}

std::vector<rc_ptr<EventHandler>> EventLoop::GetWaiting() {
  std::vector<rc_ptr<EventHandler>> waiting;
  const Lock lock(lock_);
  for (const auto& [handler, state] : handlers_) {
    if (state == State::kWaiting) waiting.push_back(handler);
  }
  return waiting;
}

std::size_t EventLoop::GetCount() {
  const Lock lock(lock_);
  return static_cast<std::size_t>(std::count_if(handlers_.begin(), handlers_.end(),
                                                [](const auto& entry) { return entry.second == State::kWaiting; }));
}

}  // namespace kestrun
