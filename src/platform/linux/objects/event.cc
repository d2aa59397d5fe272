#include <climits>

#include "platform/api/sync_api.h"
#include "platform/linux/objects/stored_waitable.h"

namespace kestrun::platform {

namespace {

// Sequentially consistent throughout: a change of the word is ordered before the reads in Wake (waitable.cc).
class Event : public StoredWaitable {
 public:
  static constexpr ObjectKind kKind = ObjectKind::kEvent;

  Event(std::shared_ptr<ObjectHeader> memory, std::unique_ptr<NamedObject> name)
      : StoredWaitable(kKind, std::move(memory), std::move(name)), manualReset_(memory_->parameter != 0) {}

  DWORD TryAcquire() override {
    if (manualReset_) return state().word.load(std::memory_order_seq_cst) != 0 ? WAIT_OBJECT_0 : WAIT_TIMEOUT;
    std::uint32_t signalled = 1;
    return state().word.compare_exchange_strong(signalled, 0, std::memory_order_seq_cst) ? WAIT_OBJECT_0 : WAIT_TIMEOUT;
  }

  bool IsConsumable() const override { return !manualReset_; }

  bool SignalOne() override {
    state().word.store(1, std::memory_order_seq_cst);
    Wake(manualReset_ ? INT_MAX : 1);
    return true;
  }

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
