#include "platform/linux/objects/process_slots.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <ctime>

namespace kestrun::platform {

namespace {

struct flock RangeOf(short type, off_t start, off_t length) {
  struct flock range {};
  range.l_type = type;
  range.l_whence = SEEK_SET;
  range.l_start = start;
  range.l_len = length;
  return range;
}

bool Lock(int file, int command, short type, off_t byte) {
  struct flock range = RangeOf(type, byte, 1);
  int result;
  do {
    result = fcntl(file, command, &range);
  } while (result != 0 && errno == EINTR);
  return result == 0;
}

bool TryLock(int file, off_t byte) {
  return Lock(file, F_OFD_SETLK, F_WRLCK, byte);
}

// The kernel offers no wait with a limit for such a lock, so it is tried again after pauses; the gate is held for far
// less than the longest pause. The limit counts the pauses and not the clock, so that time in which this process itself
// was stopped does not count.
bool LockWithin(int file, off_t byte, DWORD limitMs) {
  timespec pause{0, 20'000};
  for (std::int64_t leftNs = std::int64_t{limitMs} * 1'000'000; !TryLock(file, byte); leftNs -= pause.tv_nsec) {
    if (errno != EAGAIN && errno != EACCES) return false;
    if (leftNs <= 0) return errno = ETIMEDOUT, false;
    pause.tv_nsec = std::min(2 * pause.tv_nsec, 5'000'000L);
    nanosleep(&pause, nullptr);
  }
  return true;
}

bool IsLockedElsewhere(int file, off_t start, off_t length) {
  struct flock range = RangeOf(F_WRLCK, start, length);
  // A failed query counts as locked, so that nothing of a living process is removed or taken over.
  return fcntl(file, F_OFD_GETLK, &range) != 0 || range.l_type != F_UNLCK;
}

}  // namespace

TableGate::TableGate(int file, DWORD limitMs) : file_(file), isHeld_(LockWithin(file, kGateByte, limitMs)) {}

TableGate::~TableGate() {
  if (isHeld_) Lock(file_, F_OFD_SETLK, F_UNLCK, kGateByte);
}

bool ProcessSlots::AnyIsAlive() const {
  return IsLockedElsewhere(file_, kProcessBytes, kMaxProcesses);
}

bool ProcessSlots::Claim() {
  // Processes start their search at different slots, so that most find a free one at the first try.
  const auto start = static_cast<unsigned>(getpid());
  for (unsigned i = 0; i < kMaxProcesses; ++i) {
    const unsigned process = (start + i) % kMaxProcesses;
    if (layout_.hasMarks[process].load() == 0 && TryLock(file_, kProcessBytes + static_cast<off_t>(process))) {
      own_ = process;
      return true;
    }
  }
  return false;
}

bool ProcessSlots::IsAlive(unsigned process) const {
  return process == own_ || IsLockedElsewhere(file_, kProcessBytes + static_cast<off_t>(process), 1);
}

bool ProcessSlots::ClaimHub(unsigned hub) const {
  return TryLock(file_, kHubBytes + static_cast<off_t>(hub));
}

}  // namespace kestrun::platform
