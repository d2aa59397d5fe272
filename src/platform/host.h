// Differences between the systems that are no Win32 calls: plain values and a few helpers. Callers branch on these
// values and never ask which system they run on.
#ifndef KESTRUN_PLATFORM_HOST_H_
#define KESTRUN_PLATFORM_HOST_H_

#include <cstdint>
#include <cstdio>
#include <string>

#include "platform/win32.h"

namespace kestrun::platform {

// The separator between the elements of PATH: ';' on Windows, ':' elsewhere.
extern const char kPathListSeparator;

// True on systems that ignore the case of file names, so that lookups fold it.
extern const bool kFileNamesIgnoreCase;

// True where a process is started with a list of words, and the text of its command line is put together from them by
// the rules of the C run-time; false where the text is what the caller wrote, and the words are read from it.
extern const bool kCommandLineIsJoined;

// The folder above "DORN" in which settings and logs live when RV_COMMON_PATH is not set. No separator at its end.
std::string DefaultCommonPath();

// Standard output and error carry a tool's bytes as they are: no line end is translated. Called once, at start.
void SetStandardStreamsBinary();

// Writes out what standard output and error hold back. For a process that is dying with its other threads stopped: a
// stream that one of them has locked is left alone; this may take a second.
void FlushStandardStreams();

// Why the write on a standard stream failed that was this thread's last call.
struct WriteFailure {
  bool isReaderGone;  // of the pipe or socket
  std::string cause;
};
WriteFailure LastWriteFailure();

// Ends this process as other programs of the system end when they write to a pipe without a reader: by SIGPIPE on
// Linux, quietly with exit code 1 on Windows. Returns only if this process was started with that signal ignored or
// blocked.
void EndWithoutReader();

// The last step of looking up a program, for when no candidate exists by its exact name: the executable file in the
// candidate's folder whose name equals the candidate's last component, or that less ".exe", without regard to case (the
// smallest in byte order). Always false where the system's own lookups ignore case.
bool FindExecutableIgnoringCase(const std::string& candidate, std::string& found);

// fopen with the name mapping of the layer (either separator is accepted). Null on failure, with errno set.
std::FILE* OpenStdio(const std::string& name, const char* mode);

// As OpenStdio for reading. Null at once for what can keep a reader waiting, such as a FIFO.
std::FILE* OpenRegularFile(const std::string& name);

// A flag for CreateFileA, for a file that is written where other users may write as well. The call then fails with
// ERROR_ACCESS_DENIED for a file of another user, and for a symbolic link that another user has made. The administrator
// is no other user. 0 where the access of files and folders is all there is.
extern const DWORD kRefuseFilesOfOthers;

// The cause of a failed open, for messages. WhyNoFile: the name is no regular file, so that opening it could wait
// without end, or this process may open no more files. WhyOfOthers: the file, the folder or the symbolic link belongs
// to another user. Each is empty if that is not the cause.
std::string WhyNoFile(const std::string& name);
std::string WhyOfOthers(const std::string& name);

// The machine's name as its users know it; empty if it has none.
std::string HostName();

// Processors that this process may really use: affinity and, where there is one, the cgroup quota. At least 1.
unsigned UsableProcessors();

// The folder in which named objects are; empty where they are in none, and where it can't be used.
std::string NamedObjectFolder();

// True once a line on the standard error stream has said why this process can't use them.
bool AreNamedObjectsRefused();

// From here on this process and what it starts share named objects with no other process. Before the first named object
// is made; the folder is the caller's to remove. False where all processes of a user share one set of names.
bool SeparateNamedObjects();

// Removes what processes that were killed after a SeparateNamedObjects have left behind. Before the first named object
// is made.
void RemoveAbandonedObjects();

// Removes what killed processes have left among the named objects, the sockets of their names included, and nothing
// that is in use. Any thread; takes a millisecond or so. Processes that make objects do the same about once a minute.
void RemoveStaleObjects();

// True for a process that a signal or a debugger has stopped, until it goes on. Always false where the system does not
// tell.
bool IsStopped(DWORD processId);

// Asks a child of this process to end, by SIGTERM. False where the system has no way to ask one process alone, or if
// there is no such child.
bool AskToEnd(DWORD childId);

// Makes the processor time of the children that shared this process's terminal, and of everything below them, count as
// the time of this process's children, which a shell's `time` shows. Waits at most `limitMs` for the helper processes
// in between to end. For a process whose children have all ended. Has no effect where the system keeps no such count.
void TakeOverChildTimes(DWORD limitMs);

// A handle as the int that the reactor keeps, and back. Handles have 32 significant bits on every system.
inline int HandleToInt(HANDLE handle) {
  return static_cast<int>(reinterpret_cast<std::intptr_t>(handle));
}
inline HANDLE IntToHandle(int value) {
  return reinterpret_cast<HANDLE>(static_cast<std::intptr_t>(value));
}

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_HOST_H_
