#include "platform/linux/objects/handle_table.h"

#include <array>
#include <atomic>
#include <bit>
#include <mutex>
#include <vector>

#include "platform/api/sync_api.h"
#include "platform/linux/base/never_destroyed.h"
#include "platform/linux/objects/thread_object.h"

namespace kestrun::platform {

namespace {

constexpr std::uint32_t kSlotsPerChunk = 64;
constexpr std::uint32_t kChunks = 1024;
constexpr std::uint32_t kNoSlot = UINT32_MAX;

// A slot has its own cache line and its own lock, so that threads with different handles do not wait for one another.
// The lock is needed because a shared_ptr can't be copied while another thread replaces it; the standard library's
// atomic shared_ptr takes a lock as well.
struct alignas(64) Slot {
  std::mutex lock;
  std::shared_ptr<Object> object;
};

// The table grows by chunks that never move, so a slot is found without the table's lock. The lowest free number is
// given out first, which keeps the chunks few.
//
// Locks: the table's lock and a slot's are never held together.
class HandleTable {
 public:
  // kNoSlot if the table is full.
  std::uint32_t Insert(std::shared_ptr<Object> object) {
    const std::uint32_t index = TakeLowestFree();
    if (index == kNoSlot) return kNoSlot;
    object->AddHandle();
    Slot& slot = *Find(index);
    // Locked although no caller knows the handle yet: a closed handle with the same number may be looked up at this
    // moment.
    const std::lock_guard guard(slot.lock);
    slot.object = std::move(object);
    return index;
  }

  std::shared_ptr<Object> Get(std::uint32_t index) {
    Slot* slot = Find(index);
    if (!slot) return nullptr;
    const std::lock_guard guard(slot->lock);
    return slot->object;
  }

  std::shared_ptr<Object> Remove(std::uint32_t index) {
    Slot* slot = Find(index);
    if (!slot) return nullptr;
    std::shared_ptr<Object> object;
    {
      const std::lock_guard guard(slot->lock);
      object = std::move(slot->object);
      slot->object = nullptr;
    }
    // Given back only when the slot is empty, so that a new owner of the number finds it free.
    if (object) GiveBack(index);
    return object;
  }

 private:
  Slot* Find(std::uint32_t index) {
    if (index >= kChunks * kSlotsPerChunk) return nullptr;
    // Acquire pairs with the release in Grow: a thread that sees the chunk also sees its slots constructed.
    Slot* chunk = chunks_[index / kSlotsPerChunk].load(std::memory_order_acquire);
    return chunk ? &chunk[index % kSlotsPerChunk] : nullptr;
  }

  std::uint32_t TakeLowestFree() {
    const std::lock_guard guard(lock_);
    while (firstWithRoom_ < used_.size() && used_[firstWithRoom_] == ~std::uint64_t{0}) ++firstWithRoom_;
    if (firstWithRoom_ == used_.size() && !Grow()) return kNoSlot;
    const int bit = std::countr_one(used_[firstWithRoom_]);
    used_[firstWithRoom_] |= std::uint64_t{1} << bit;
    return static_cast<std::uint32_t>(firstWithRoom_) * 64 + static_cast<std::uint32_t>(bit);
  }

  void GiveBack(std::uint32_t index) {
    const std::lock_guard guard(lock_);
    const std::size_t word = index / 64;
    used_[word] &= ~(std::uint64_t{1} << (index % 64));
    if (word < firstWithRoom_) firstWithRoom_ = word;
  }

  bool Grow() {
    if (owned_.size() == kChunks) return false;
    owned_.push_back(std::make_unique<Slot[]>(kSlotsPerChunk));
    used_.resize(used_.size() + kSlotsPerChunk / 64);
    // Release: see Find.
    chunks_[owned_.size() - 1].store(owned_.back().get(), std::memory_order_release);
    return true;
  }

  std::array<std::atomic<Slot*>, kChunks> chunks_{};
  // Guarded by lock_.
  std::mutex lock_;
  std::vector<std::unique_ptr<Slot[]>> owned_;
  std::vector<std::uint64_t> used_;
  std::size_t firstWithRoom_ = 0;
};

HandleTable& Table() {
  static NeverDestroyed<HandleTable> table;
  return table.get();
}

struct CurrentProcess {
  std::mutex lock;
  std::shared_ptr<Object> object;
};

CurrentProcess& ThisProcess() {
  static NeverDestroyed<CurrentProcess> process;
  return process.get();
}

rlimit RaiseDescriptorLimit() {
  rlimit original{};
  getrlimit(RLIMIT_NOFILE, &original);
  rlimit raised = original;
  raised.rlim_cur = raised.rlim_max;
  if (raised.rlim_cur != original.rlim_cur) setrlimit(RLIMIT_NOFILE, &raised);
  return original;
}

// Handles are 4, 8, 12, ...
constexpr std::intptr_t kStep = 4;

HANDLE ToHandle(std::uint32_t index) {
  return reinterpret_cast<HANDLE>((static_cast<std::intptr_t>(index) + 1) * kStep);
}

std::uint32_t ToIndex(HANDLE handle) {
  const auto value = reinterpret_cast<std::intptr_t>(handle);
  if (value <= 0 || value % kStep != 0 || value > INT32_MAX) return kNoSlot;
  return static_cast<std::uint32_t>(value / kStep - 1);
}

std::shared_ptr<Object> LookUpPseudo(HANDLE handle) {
  if (handle == kCurrentThreadHandle) return CurrentThreadObject();
  if (handle != GetCurrentProcess()) return nullptr;
  CurrentProcess& process = ThisProcess();
  const std::lock_guard guard(process.lock);
  return process.object;
}

}  // namespace

DWORD Object::Resume() {
  SetLastError(ERROR_INVALID_HANDLE);
  return 0xFFFFFFFFu;
}

std::uint32_t Object::HandleCount() {
  return OwnHandles();
}

rlimit OriginalDescriptorLimit() {
  static const rlimit original = RaiseDescriptorLimit();
  return original;
}

HANDLE AllocateHandle(std::shared_ptr<Object> object) {
  OriginalDescriptorLimit();
  const std::uint32_t index = Table().Insert(std::move(object));
  if (index != kNoSlot) return ToHandle(index);
  SetLastError(ERROR_TOO_MANY_OPEN_FILES);
  return nullptr;
}

std::shared_ptr<Object> LookUpObject(HANDLE handle) {
  const std::uint32_t index = ToIndex(handle);
  std::shared_ptr<Object> object = index == kNoSlot ? LookUpPseudo(handle) : Table().Get(index);
  if (!object) SetLastError(ERROR_INVALID_HANDLE);
  return object;
}

bool ReleaseHandle(HANDLE handle) {
  const std::uint32_t index = ToIndex(handle);
  std::shared_ptr<Object> object = index == kNoSlot ? nullptr : Table().Remove(index);
  if (!object) {
    SetLastError(ERROR_INVALID_HANDLE);
    return false;
  }
  // Closing leaves the last error alone, so that a caller may close handles before it reports a failure.
  const DWORD error = GetLastError();
  // No lock of the table is held here: LastHandleClosed takes locks of its own and makes system calls.
  if (object->DropHandle()) object->LastHandleClosed();
  object.reset();
  SetLastError(error);
  return true;
}

void SetCurrentProcessObject(std::shared_ptr<Object> object) {
  CurrentProcess& process = ThisProcess();
  const std::lock_guard guard(process.lock);
  process.object = std::move(object);
}

}  // namespace kestrun::platform

using namespace kestrun::platform;

BOOL CloseHandle(HANDLE handle) {
  if (handle == GetCurrentProcess() || handle == kCurrentThreadHandle) return TRUE;
  return ReleaseHandle(handle) ? TRUE : FALSE;
}

BOOL DuplicateHandle(HANDLE sourceProcess, HANDLE source, HANDLE targetProcess, HANDLE* target, DWORD, BOOL,
                     DWORD options) {
  if (sourceProcess != GetCurrentProcess() || targetProcess != GetCurrentProcess()) {
    SetLastError(ERROR_NOT_SUPPORTED);
    return FALSE;
  }
  std::shared_ptr<Object> object = LookUpObject(source);
  if (!object) return FALSE;
  if (target) {
    *target = AllocateHandle(std::move(object));
    if (!*target) return FALSE;
  }
  if (options & DUPLICATE_CLOSE_SOURCE) CloseHandle(source);
  return TRUE;
}
