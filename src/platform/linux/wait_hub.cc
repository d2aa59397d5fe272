#include "platform/linux/wait_hub.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <bit>
#include <cerrno>
#include <climits>
#include <mutex>

#include "platform/linux/futex.h"
#include "platform/linux/never_destroyed.h"
#include "platform/linux/object_folder.h"

namespace kestrun::platform {

namespace {

constexpr unsigned kMachineHubs = 64;
constexpr unsigned kCommonHub = kMachineHubs - 1;
constexpr std::size_t kPageSize = kMachineHubs * sizeof(HubWord);
static_assert(kPageSize == 4096);

// The leading "." can't begin the file of an object.
constexpr const char* kHubFile = ".hubs";

constexpr std::uint64_t kProcessMark = 1;
constexpr std::uint64_t kMachineMark = 2;

HubWord processHub{};

// The shared page and this process's place in it. The file stays in the folder for good: all processes must see the
// same page. A process that cannot have it is without it until it ends.
class MachineHubs {
 public:
  static MachineHubs& Get() {
    static NeverDestroyed<MachineHubs> hubs;
    return hubs.get();
  }

  HubWord* page() { return page_; }

  // The hub that this process sleeps on.
  unsigned Claimed() {
    std::call_once(claimOnce_, [this] { Claim(); });
    return claimed_;
  }
  // The same if it has been claimed, else none.
  int ClaimedSoFar() const { return claimedSoFar_.load(std::memory_order_acquire); }

 private:
  friend class NeverDestroyed<MachineHubs>;

  MachineHubs() : file_(OpenObjectFile(kHubFile, O_CREAT)) {
    if (!file_ || ReserveSpace(file_.get(), kPageSize) != 0) return;
    void* page = mmap(nullptr, kPageSize, PROT_READ | PROT_WRITE, MAP_SHARED, file_.get(), 0);
    if (page == MAP_FAILED) return;
    madvise(page, kPageSize, MADV_DONTFORK);
    page_ = static_cast<HubWord*>(page);
  }

  // A lock on byte i of the file is the claim on hub i; it ends with the process.
  void Claim() {
    const auto start = static_cast<unsigned>(getpid()) % kCommonHub;
    for (unsigned i = 0; i < kCommonHub; ++i) {
      const unsigned hub = (start + i) % kCommonHub;
      struct flock lock {};
      lock.l_type = F_WRLCK;
      lock.l_start = static_cast<off_t>(hub);
      lock.l_len = 1;
      if (fcntl(file_.get(), F_OFD_SETLK, &lock) != 0) continue;
      // What an earlier owner left when it was killed asleep.
      page_[hub].sleepers.store(0, std::memory_order_seq_cst);
      claimed_ = hub;
      break;
    }
    claimedSoFar_.store(static_cast<int>(claimed_), std::memory_order_release);
  }

  FileDescriptor file_;
  HubWord* page_ = nullptr;
  std::once_flag claimOnce_;
  unsigned claimed_ = kCommonHub;
  std::atomic<int> claimedSoFar_{-1};
};

void Notify(HubWord& hub, Scope scope) {
  hub.counter.fetch_add(1, std::memory_order_seq_cst);
  if (hub.sleepers.load(std::memory_order_seq_cst) != 0) FutexWake(hub.counter, INT_MAX, scope);
}

}  // namespace

Hub Hub::For(Scope scope) {
  if (scope == Scope::kProcess) return Hub(&processHub, Scope::kProcess, 0, true);
  MachineHubs& hubs = MachineHubs::Get();
  if (!hubs.page()) return Hub(&processHub, Scope::kProcess, 0, false);
  const unsigned index = hubs.Claimed();
  return Hub(&hubs.page()[index], Scope::kMachine, index, true);
}

void Hub::Mark(Waitable& waitable) const {
  std::uint64_t mark;
  if (waitable.scope() == Scope::kMachine) {
    if (scope_ == Scope::kProcess) return;
    mark = std::uint64_t{1} << index_;
  } else {
    mark = scope_ == Scope::kProcess ? kProcessMark : kMachineMark;
  }
  std::atomic<std::uint64_t>& hubs = waitable.state().hubs;
  if ((hubs.load(std::memory_order_seq_cst) & mark) == 0) hubs.fetch_or(mark, std::memory_order_seq_cst);
}

bool Hub::Sleep(std::uint32_t seen, const Deadline& deadline) const {
  word_->sleepers.fetch_add(1, std::memory_order_seq_cst);
  const long result = FutexWait(word_->counter, seen, scope_, deadline);
  const int error = errno;
  word_->sleepers.fetch_sub(1, std::memory_order_seq_cst);
  if (result == 0 || error == EAGAIN || error == EINTR || error == ETIMEDOUT) return true;
  SetLastError(Win32ErrorFromErrno(error));
  return false;
}

void NotifyHubs(std::uint64_t marks, Scope scope) {
  if (scope == Scope::kProcess && (marks & kProcessMark)) Notify(processHub, Scope::kProcess);
  if (scope == Scope::kProcess && !(marks & kMachineMark)) return;
  MachineHubs& hubs = MachineHubs::Get();
  if (!hubs.page()) return;
  if (scope == Scope::kProcess) {
    // The mark was made by a waiter of this process, after it had claimed its hub.
    const int own = hubs.ClaimedSoFar();
    if (own >= 0) Notify(hubs.page()[own], Scope::kMachine);
    return;
  }
  for (; marks != 0; marks &= marks - 1) Notify(hubs.page()[std::countr_zero(marks)], Scope::kMachine);
}

}  // namespace kestrun::platform
