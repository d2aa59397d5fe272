#include "platform/linux/objects/stored_waitable.h"

namespace kestrun::platform {

void StoredWaitable::LastHandleClosed() {
  if (name_) name_->Release();
}

std::uint32_t StoredWaitable::HandleCount() {
  const std::uint32_t own = OwnHandles();
  return own == 1 && name_ && name_->IsHeldElsewhere() ? 2 : own;
}

}  // namespace kestrun::platform
