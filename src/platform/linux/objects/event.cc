#include <climits>

#include "platform/api/sync_api.h"
#include "platform/linux/objects/stored_waitable.h"

namespace kestrun::platform {

namespace {

// An event: its word is 1 while it is signalled.
//
// Memory orders: all accesses to the word are sequentially consistent, because a change of the word must be ordered
// before the reads of counts and marks in Wake (waitable.cc), and these are other words.
class Event : public StoredWaitable {
 public:
  static constexpr ObjectKind kKind = ObjectKind::kEvent;

  Event(std::shared_ptr<ObjectHeader> memory, std::unique_ptr<NamedObject> name)
      : StoredWaitable(kKind, std::move(memory), std::move(name)), manualReset_(memory_->parameter != 0) {}

  DWORD TryAcquire() override {
    // Sequentially consistent: a waiter that has left its mark or count sees a signal that was sent before
    // (wait_hub.cc).
    if (manualReset_) return state().word.load(std::memory_order_seq_cst) != 0 ? WAIT_OBJECT_0 : WAIT_TIMEOUT;
    // Sequentially consistent like all accesses here: exactly one thread takes the signal of an auto-reset event.
    std::uint32_t signalled = 1;
    return state().word.compare_exchange_strong(signalled, 0, std::memory_order_seq_cst) ? WAIT_OBJECT_0 : WAIT_TIMEOUT;
  }

  bool IsConsumable() const override { return !manualReset_; }

  bool SignalOne() override {
    // Sequentially consistent: the store is ordered before the reads in Wake.
    state().word.store(1, std::memory_order_seq_cst);
    Wake(manualReset_ ? INT_MAX : 1);
    return true;
  }

  // Sequentially consistent, so that all changes of the word have one order. A reset wakes no thread.
  void Reset() { state().word.store(0, std::memory_order_seq_cst); }

 private:
  const bool manualReset_;
};

}  // namespace

}  // namespace kestrun::platform

using namespace kestrun::platform;

HANDLE CreateEventA(LPSECURITY_ATTRIBUTES, BOOL manualReset, BOOL initialState, LPCSTR name) {
  return CreateStored<Event>(name, [=](ObjectHeader& header) {
    header.parameter = manualReset ? 1 : 0;
    // No other thread sees the object yet; the order is that of all accesses.
    header.state.word.store(initialState ? 1 : 0, std::memory_order_seq_cst);
  });
}

HANDLE OpenEventA(DWORD, BOOL, LPCSTR name) {
  return OpenStored<Event>(name);
}

BOOL SetEvent(HANDLE event) {
  const auto object = LookUp<Event>(event);
  return object && object->SignalOne() ? TRUE : FALSE;
}

BOOL ResetEvent(HANDLE event) {
  const auto object = LookUp<Event>(event);
  if (object) object->Reset();
  return object ? TRUE : FALSE;
}
