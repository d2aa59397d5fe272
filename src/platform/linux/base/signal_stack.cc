#include "platform/linux/base/signal_stack.h"

#include <signal.h>
#include <sys/mman.h>

#include <atomic>
#include <cstddef>

namespace kestrun::platform {

namespace {

// Room for the crash filter, which writes a report on this stack. MAP_NORESERVE below: pages that are never used cost
// nothing.
constexpr std::size_t kStackSize = std::size_t{256} << 10;

std::atomic<bool> areStacksNeeded{false};

class SignalStack {
 public:
  SignalStack() {
    stack_t present;
    // A sanitizer may have given the thread such a stack already.
    if (sigaltstack(nullptr, &present) == 0 && (present.ss_flags & SS_DISABLE) == 0) return;
    void* const memory =
        mmap(nullptr, kStackSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED) return;
    memory_ = memory;
    const stack_t stack{memory_, 0, kStackSize};
    sigaltstack(&stack, nullptr);
  }
  SignalStack(const SignalStack&) = delete;
  SignalStack& operator=(const SignalStack&) = delete;
  ~SignalStack() {
    if (memory_ == nullptr) return;
    const stack_t none{nullptr, SS_DISABLE, 0};
    sigaltstack(&none, nullptr);
    munmap(memory_, kStackSize);
  }

 private:
  void* memory_ = nullptr;
};

}  // namespace

void NeedSignalStacks() {
  areStacksNeeded.store(true);
  PrepareSignalStack();
}

void PrepareSignalStack() {
  // Relaxed: the flag guards no other data, and a thread that starts while the first filter is being set may do without
  // such a stack.
  if (!areStacksNeeded.load(std::memory_order_relaxed)) return;
  thread_local const SignalStack stack;
}

}  // namespace kestrun::platform
