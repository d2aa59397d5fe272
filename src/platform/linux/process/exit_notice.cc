#include "platform/linux/process/exit_notice.h"

#include <sys/eventfd.h>

namespace kestrun::platform {

void ExitNotice::Set() {
  // Stored before the lock is taken: a call of Descriptor that gets the lock first makes an event that is signalled
  // below, and one that gets it later makes an event that is signalled from the start. Release would do (it pairs with
  // IsSet); sequentially consistent costs nothing here, once a child.
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
