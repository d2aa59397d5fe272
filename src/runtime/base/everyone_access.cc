#include "runtime/base/everyone_access.h"

namespace kestrun {

EveryoneAccess::EveryoneAccess() : isComplete_(Build()) {}

EveryoneAccess::~EveryoneAccess() {
  if (everyone_ != nullptr) FreeSid(everyone_);
  if (list_ != nullptr) LocalFree(list_);
  if (descriptor_ != nullptr) LocalFree(descriptor_);
}

bool EveryoneAccess::Build() {
  // The steps of Windows: the id of the group of all users, an access list with one entry for it, and a descriptor with
  // that list. A failed step leaves what was made to the destructor.
  SID_IDENTIFIER_AUTHORITY world = {{0, 0, 0, 0, 0, 1}};
  if (!AllocateAndInitializeSid(&world, 1, SECURITY_WORLD_RID, 0, 0, 0, 0, 0, 0, 0, &everyone_)) return false;

  EXPLICIT_ACCESS_A access{};
  access.grfAccessPermissions = GENERIC_ALL;
  access.grfAccessMode = SET_ACCESS;
  access.grfInheritance = NO_INHERITANCE;
  access.Trustee.TrusteeForm = TRUSTEE_IS_SID;
  access.Trustee.TrusteeType = TRUSTEE_IS_WELL_KNOWN_GROUP;
  access.Trustee.ptstrName = static_cast<LPSTR>(everyone_);
  if (SetEntriesInAclA(1, &access, nullptr, &list_) != ERROR_SUCCESS) return false;

  descriptor_ = LocalAlloc(LPTR, SECURITY_DESCRIPTOR_MIN_LENGTH);
  if (descriptor_ == nullptr) return false;
  if (!InitializeSecurityDescriptor(descriptor_, SECURITY_DESCRIPTOR_REVISION)) return false;
  if (!SetSecurityDescriptorDacl(descriptor_, TRUE, list_, FALSE)) return false;

  attributes_ = {sizeof(SECURITY_ATTRIBUTES), descriptor_, FALSE};
  return true;
}

}  // namespace kestrun
