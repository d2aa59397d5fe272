// What a process does before it ends because of an unhandled exception: it writes a dump file and a line on the
// standard error stream, and ends with the exit code 0xFFFFFFFF.
//
// The dump is written to directory + prefix + version + ".dmp", the next ones of that version to the same name with
// "-2" to "-5" before the ending; no dump is written over another, and a crash loop fills no disk. The directory is not
// created; without it the dump is not written. All other threads of the process are stopped first. A second fault while
// the dump is being written leaves the first handler running.
#ifndef KESTRUN_RUNTIME_PROCESS_CRASH_HANDLER_H_
#define KESTRUN_RUNTIME_PROCESS_CRASH_HANDLER_H_

namespace kestrun {

// Called once, early in main. Both texts are copied, each cut at 259 characters; `directory` ends in a separator.
// With `fullMemory` the dump holds the whole memory of the process.
void InstallCrashHandler(const char* directory, const char* prefix, bool fullMemory);

}  // namespace kestrun

#endif  // KESTRUN_RUNTIME_PROCESS_CRASH_HANDLER_H_
