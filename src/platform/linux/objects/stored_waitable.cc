#include "platform/linux/objects/stored_waitable.h"

namespace kestrun::platform {

// The object's name goes with its last handle and not with the last call that still uses the object: a thread that
// waits for ever must not keep the name alive.
void StoredWaitable::LastHandleClosed() {
  if (name_) name_->Release();
}

std::uint32_t StoredWaitable::HandleCount() {
  const std::uint32_t own = OwnHandles();
  // The table knows which processes hold the object, and not how often; 2 stands for "more than this handle".
  return own == 1 && name_ && name_->IsHeldElsewhere() ? 2 : own;
}

}  // namespace kestrun::platform
