// Which process keeps a lock of the object table, for the message to the user after a wait that timed out.
//
// The locks of the table are held for microseconds. A process that is stopped at that moment, by a signal or in a
// debugger, keeps its lock until it goes on or ends; so each wait for such a lock has a limit. All functions may be
// called from any thread; they read /proc, and are for a wait that has failed.
#ifndef KESTRUN_PLATFORM_LINUX_OBJECTS_LOCK_HOLDER_H_
#define KESTRUN_PLATFORM_LINUX_OBJECTS_LOCK_HOLDER_H_

#include <sys/types.h>

#include "platform/api/base_api.h"

namespace kestrun::platform {

// The lock timeout of the table's locks.
inline constexpr DWORD kTableLockLimitMs = 5000;
// The same where the lock is not needed now, or has timed out before.
inline constexpr DWORD kShortLockLimitMs = 50;

// The process of a thread; 0 if there is none of that id.
pid_t ProcessOfThread(pid_t thread);

// The process that has locked that byte of an open file (F_OFD_SETLK), if it belongs to this user; else 0.
pid_t HolderOfByte(int file, off_t byte);

// Reports the folder of objects as unusable because that process, 0 if unknown, keeps a lock of its table.
// Always false, with the last error ERROR_TIMEOUT.
bool FailByHolder(pid_t holder);

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_OBJECTS_LOCK_HOLDER_H_
