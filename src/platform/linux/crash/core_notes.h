// The notes of a core file: the threads with their registers, and what a debugger needs to find the program's files.
//
// For the crash path alone: nothing here allocates memory or takes a lock. The caller owns the scratch memory in which
// the notes are made.
#ifndef KESTRUN_PLATFORM_LINUX_CRASH_CORE_NOTES_H_
#define KESTRUN_PLATFORM_LINUX_CRASH_CORE_NOTES_H_

#include <ucontext.h>

#include "platform/linux/crash/memory_map.h"

namespace kestrun::platform {

// A thread, the signal that hit it (0 for none), and its registers at that moment.
struct CoreThread {
  int id;
  int signal;
  const ucontext_t* context;
  unsigned long threadPointer;
};

std::uint64_t StackPointer(const ucontext_t& context);

// The notes as the file contains them. The first thread is the one that failed. Empty if the scratch memory is too
// small.
Bytes MakeCoreNotes(const CoreThread* threads, std::size_t threadCount, const MemoryMap& map, Scratch& scratch);

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_CRASH_CORE_NOTES_H_
