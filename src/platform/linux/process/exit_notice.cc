#include "platform/linux/process/exit_notice.h"

#include <sys/eventfd.h>

namespace kestrun::platform {

void ExitNotice::Set() {
  // Before the lock: a Descriptor call that finds the lock free first makes an event that is signalled below, and one
  // that comes later makes a signalled event. Sequentially consistent is more than this needs, and costs nothing here.
  isSet_.store(true, std::memory_order_seq_cst);
  const std::lock_guard lock(mutex_);
  if (event_) eventfd_write(event_.get(), 1);
}

int ExitNotice::Descriptor() {
  const std::lock_guard lock(mutex_);
  if (!event_) event_.Reset(eventfd(IsSet() ? 1 : 0, EFD_CLOEXEC | EFD_NONBLOCK));
  return event_.get();
}

}  // namespace kestrun::platform
