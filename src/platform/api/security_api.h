// Security descriptors under their Win32 names, as far as a caller builds one that opens an object to everyone.
//
// The calls keep their contract (what they allocate must be released, wrong arguments fail), but a descriptor has no
// effect: every object and file of this layer belongs to one user and is closed to all others, whatever it says.
#ifndef KESTRUN_PLATFORM_API_SECURITY_API_H_
#define KESTRUN_PLATFORM_API_SECURITY_API_H_

#include "platform/api/base_api.h"
#include "platform/api/file_api.h"

struct SID_IDENTIFIER_AUTHORITY {
  BYTE Value[6];
};
#define SECURITY_WORLD_SID_AUTHORITY \
  { 0, 0, 0, 0, 0, 1 }
#define SECURITY_WORLD_RID 0u

using PSID = void*;

struct ACL {
  BYTE AclRevision;
  BYTE Sbz1;
  WORD AclSize;
  WORD AceCount;
  WORD Sbz2;
};
using PACL = ACL*;

struct SECURITY_DESCRIPTOR {
  BYTE Revision;
  BYTE Sbz1;
  WORD Control;
  PSID Owner;
  PSID Group;
  PACL Sacl;
  PACL Dacl;
};
using PSECURITY_DESCRIPTOR = void*;
#define SECURITY_DESCRIPTOR_MIN_LENGTH sizeof(SECURITY_DESCRIPTOR)
#define SECURITY_DESCRIPTOR_REVISION 1u

enum ACCESS_MODE { NOT_USED_ACCESS, GRANT_ACCESS, SET_ACCESS, DENY_ACCESS, REVOKE_ACCESS };
enum MULTIPLE_TRUSTEE_OPERATION { NO_MULTIPLE_TRUSTEE, TRUSTEE_IS_IMPERSONATE };
enum TRUSTEE_FORM { TRUSTEE_IS_SID, TRUSTEE_IS_NAME, TRUSTEE_BAD_FORM };
enum TRUSTEE_TYPE {
  TRUSTEE_IS_UNKNOWN,
  TRUSTEE_IS_USER,
  TRUSTEE_IS_GROUP,
  TRUSTEE_IS_DOMAIN,
  TRUSTEE_IS_ALIAS,
  TRUSTEE_IS_WELL_KNOWN_GROUP
};
#define NO_INHERITANCE 0u

struct TRUSTEE_A {
  TRUSTEE_A* pMultipleTrustee;
  MULTIPLE_TRUSTEE_OPERATION MultipleTrusteeOperation;
  TRUSTEE_FORM TrusteeForm;
  TRUSTEE_TYPE TrusteeType;
  LPSTR ptstrName;
};

struct EXPLICIT_ACCESS_A {
  DWORD grfAccessPermissions;
  ACCESS_MODE grfAccessMode;
  DWORD grfInheritance;
  TRUSTEE_A Trustee;
};

#define LMEM_FIXED 0x0u
#define LMEM_ZEROINIT 0x40u
#define LPTR (LMEM_FIXED | LMEM_ZEROINIT)

// LocalFree gives null on success, the block itself on failure.
HLOCAL LocalAlloc(UINT flags, SIZE_T size);
HLOCAL LocalFree(HLOCAL memory);

// The caller releases the SID with FreeSid, and the list that SetEntriesInAclA makes with LocalFree.
BOOL AllocateAndInitializeSid(SID_IDENTIFIER_AUTHORITY* authority, BYTE subAuthorityCount, DWORD subAuthority0,
                              DWORD subAuthority1, DWORD subAuthority2, DWORD subAuthority3, DWORD subAuthority4,
                              DWORD subAuthority5, DWORD subAuthority6, DWORD subAuthority7, PSID* sid);
PVOID FreeSid(PSID sid);
// Gives an error number, ERROR_SUCCESS for none.
DWORD SetEntriesInAclA(ULONG count, EXPLICIT_ACCESS_A* entries, PACL oldAcl, PACL* newAcl);
BOOL InitializeSecurityDescriptor(PSECURITY_DESCRIPTOR descriptor, DWORD revision);
BOOL SetSecurityDescriptorDacl(PSECURITY_DESCRIPTOR descriptor, BOOL daclPresent, PACL dacl, BOOL daclDefaulted);

#endif  // KESTRUN_PLATFORM_API_SECURITY_API_H_
