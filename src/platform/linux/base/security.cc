// Security descriptors are built and released as on Windows and never looked at: files and objects of this layer have
// the modes of one user's own (security_api.h).
#include "platform/api/security_api.h"

#include <cstdlib>
#include <cstring>

HLOCAL LocalAlloc(UINT flags, SIZE_T size) {
  // One byte more, because a block of size 0 must still have an address.
  void* const memory = (flags & LMEM_ZEROINIT) != 0 ? std::calloc(1, size + 1) : std::malloc(size + 1);
  if (memory == nullptr) SetLastError(ERROR_NOT_ENOUGH_MEMORY);
  return memory;
}

HLOCAL LocalFree(HLOCAL memory) {
  std::free(memory);
  return nullptr;
}

BOOL AllocateAndInitializeSid(SID_IDENTIFIER_AUTHORITY* authority, BYTE subAuthorityCount, DWORD subAuthority0,
                              DWORD subAuthority1, DWORD subAuthority2, DWORD subAuthority3, DWORD subAuthority4,
                              DWORD subAuthority5, DWORD subAuthority6, DWORD subAuthority7, PSID* sid) {
  struct Sid {
    BYTE revision;
    BYTE count;
    SID_IDENTIFIER_AUTHORITY authority;
    DWORD subAuthorities[8];
  };
  if (authority == nullptr || sid == nullptr || subAuthorityCount > 8) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  const Sid made{1,
                 subAuthorityCount,
                 *authority,
                 {subAuthority0, subAuthority1, subAuthority2, subAuthority3, subAuthority4, subAuthority5,
                  subAuthority6, subAuthority7}};
  *sid = LocalAlloc(LMEM_FIXED, sizeof made);
  if (*sid == nullptr) return FALSE;
  std::memcpy(*sid, &made, sizeof made);
  return TRUE;
}

PVOID FreeSid(PSID sid) {
  return LocalFree(sid);
}

DWORD SetEntriesInAclA(ULONG count, EXPLICIT_ACCESS_A* entries, PACL, PACL* newAcl) {
  if (newAcl == nullptr || (count > 0 && entries == nullptr)) return ERROR_INVALID_PARAMETER;
  *newAcl = static_cast<PACL>(LocalAlloc(LPTR, sizeof(ACL)));
  if (*newAcl == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
  (*newAcl)->AclRevision = 2;
  (*newAcl)->AclSize = sizeof(ACL);
  (*newAcl)->AceCount = static_cast<WORD>(count);
  return ERROR_SUCCESS;
}

BOOL InitializeSecurityDescriptor(PSECURITY_DESCRIPTOR descriptor, DWORD revision) {
  if (descriptor == nullptr || revision != SECURITY_DESCRIPTOR_REVISION) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  *static_cast<SECURITY_DESCRIPTOR*>(descriptor) = {
      static_cast<BYTE>(revision), 0, 0, nullptr, nullptr, nullptr, nullptr};
  return TRUE;
}

BOOL SetSecurityDescriptorDacl(PSECURITY_DESCRIPTOR descriptor, BOOL daclPresent, PACL dacl, BOOL daclDefaulted) {
  constexpr WORD kPresent = 0x4, kDefaulted = 0x8;
  auto* const target = static_cast<SECURITY_DESCRIPTOR*>(descriptor);
  if (target == nullptr || target->Revision != SECURITY_DESCRIPTOR_REVISION) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  target->Control = static_cast<WORD>((daclPresent ? kPresent : 0) | (daclDefaulted ? kDefaulted : 0));
  target->Dacl = daclPresent ? dacl : nullptr;
  return TRUE;
}
