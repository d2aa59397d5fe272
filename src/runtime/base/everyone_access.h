// Security attributes that let every user of the machine open what is created with them.
#ifndef KESTRUN_RUNTIME_BASE_EVERYONE_ACCESS_H_
#define KESTRUN_RUNTIME_BASE_EVERYONE_ACCESS_H_

#include "platform/win32.h"

namespace kestrun {

// Owns the descriptor that the attributes point to: it lives until the object that it is for has been made. If the
// system refuses a step of its making, the attributes are null, which stands for the system's defaults.
class EveryoneAccess {
 public:
  EveryoneAccess();
  EveryoneAccess(const EveryoneAccess&) = delete;
  EveryoneAccess& operator=(const EveryoneAccess&) = delete;
  ~EveryoneAccess();

  SECURITY_ATTRIBUTES* GetAttributes() const { return isComplete_ ? &attributes_ : nullptr; }

 private:
  bool Build();

  PSID everyone_ = nullptr;
  PACL list_ = nullptr;
  PSECURITY_DESCRIPTOR descriptor_ = nullptr;
  mutable SECURITY_ATTRIBUTES attributes_{};
  bool isComplete_;
};

}  // namespace kestrun

#endif  // KESTRUN_RUNTIME_BASE_EVERYONE_ACCESS_H_
