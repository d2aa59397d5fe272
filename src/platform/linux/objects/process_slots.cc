#include "platform/linux/objects/process_slots.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

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

bool IsLockedElsewhere(int file, off_t start, off_t length) {
  struct flock range = RangeOf(F_WRLCK, start, length);
  // A failed query counts as locked: then nothing is removed or taken over.
  return fcntl(file, F_OFD_GETLK, &range) != 0 || range.l_type != F_UNLCK;
}

}  // namespace

TableGate::TableGate(int file) : file_(file), isHeld_(Lock(file, F_OFD_SETLKW, F_WRLCK, kGateByte)) {}

TableGate::~TableGate() {
  if (isHeld_) Lock(file_, F_OFD_SETLK, F_UNLCK, kGateByte);
}

bool ProcessSlots::AnyIsAlive() const {
  return IsLockedElsewhere(file_, kProcessBytes, kMaxProcesses);
}

bool ProcessSlots::Claim() {
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
