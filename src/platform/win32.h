// The one header through which the program meets its operating system.
//
// On Windows it is the system's own headers and nothing else. Elsewhere it declares, under the same names, the
// functions, types and constants that the program calls, and no more; README.md in this folder tells what an
// implementation has to promise. Nothing above this folder asks which system it runs on.
#ifndef KESTRUN_PLATFORM_WIN32_H_
#define KESTRUN_PLATFORM_WIN32_H_

#ifdef _WIN32

#include <winsock2.h>
#include <windows.h>

#include <aclapi.h>
#include <dbghelp.h>
#include <psapi.h>
#include <tlhelp32.h>
#include <winver.h>

#else

#include "platform/api/diagnostics_api.h"
#include "platform/api/file_api.h"
#include "platform/api/process_api.h"
#include "platform/api/security_api.h"
#include "platform/api/socket_api.h"
#include "platform/api/sync_api.h"

#endif

#endif  // KESTRUN_PLATFORM_WIN32_H_
