// The diagnostic log: one object in each process, which appends text records to a file that all Kestrun processes
// share.
//
// A record is a line "Level: [COMPONENT] message", a line " time:..." and a line " key:value" for each field, all ended
// by CR LF and written by one call under a named mutex, so that records of different processes never mix. Daily mode
// writes <common path>/Log/<prefix>YYYY-MM-DD.log and goes to a new file with the first record after local midnight;
// single-file mode writes the one file that it is given.
//
// The log is silent until SetEnabled(true). It never reports its own failures: a record that cannot be written, or for
// which the mutex is not free within a second, is lost. Any thread may call Write. Init and Shutdown belong to main; no
// thread may be inside a call of the log when Shutdown runs.
#ifndef KESTRUN_RUNTIME_FILES_LOG_H_
#define KESTRUN_RUNTIME_FILES_LOG_H_

#include <atomic>
#include <ctime>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/win32.h"
#include "runtime/base/critical_section.h"
#include "runtime/base/handle.h"
#include "runtime/base/types.h"
#include "runtime/files/path.h"
#include "runtime/threads/sync.h"

namespace kestrun {

class Log {
 public:
  enum Level : int { Debug = 0, Info = 1, Warning = 2, Error = 3 };
  enum Component : int { SERVER = 1, CLIENT = 2, STUB = 3, EVENTS = 4 };
  using Fields = std::vector<std::pair<std::string, std::string>>;

  // The instance; null before Init and after Shutdown.
  static Log* Get();

  // Daily mode. With `cleanUp` the oldest file goes whenever the files of this prefix exceed 20 MiB, at most one a
  // record and never the only one. Does nothing if an instance exists.
  static void Init(const std::string& prefix, bool cleanUp);

  // Single-file mode; the path is turned to lower case if it is shorter than 261 characters. If the folder exists as it
  // was given and not in lower case, its name is kept. Otherwise as Init.
  static void InitFile(const std::string& path);

  static void Shutdown();

  // Stores the flag, then opens the file even if the flag is false. Write does not try again to open a file that could
  // not be opened.
  void SetEnabled(bool enabled);

  // Why the file may not be used, with its name: because writing to it could wait without end, or because another user
  // has prepared it. Empty if it may be used. The caller tells the user; the log itself does not.
  std::string GetRefusal();

  // Debug records are dropped unless this is set.
  void SetDebug(bool debug);

  // False if Write would write nothing, so that a caller need not build a record.
  bool IsOpen() const { return enabled_ && hasFile_; }

  // The same for debug records.
  bool TakesDebug() const { return IsOpen() && debug_; }

  // Unknown levels print as "?", unknown components as "COMPONENT=" and the number. Never throws.
  void Write(int level, int component, const std::string& message, const Fields& fields = {});

  // "2026-03-09 14:05:33.027"; the second form takes milliseconds since the start of 1601.
  static std::string FormatTime(const SYSTEMTIME& time);
  static std::string FormatTime(u64 milliseconds);

  // Replaces the clock that decides which day it is; null brings the system's back. For tests of the change of day.
  static void SetDayClock(std::time_t (*clock)());

 private:
  struct LogFileInfo {
    std::string name;
    u32 size = 0;
    friend bool operator<(const LogFileInfo& left, const LogFileInfo& right) { return left.name < right.name; }
  };

  Log(const std::string& mutexName, const Path& directory, const std::string& prefix, const Path& singleFile,
      bool cleanUp);
  bool IsDaily() const { return singleFile_.GetLength() == 0; }
  void Open();
  bool IsRefused(const std::string& name, const std::string& why);
  void ScanDirectory();
  std::string OpenFile();
  void OpenToday();
  void Rotate();
  void Append(const std::string& record);
  // Null if it can't be made.
  Mutex* GetMutex();

  // Constant after construction.
  const Path directory_;
  const std::string prefix_;
  const Path singleFile_;
  const bool cleanUp_;
  const std::string mutexName_;

  std::atomic<bool> enabled_{false};
  std::atomic<bool> debug_{false};
  std::atomic<bool> hasFile_{false};

  CriticalSection lock_;  // guards the members below; SetEnabled and GetMutex take it without the mutex
  // The cross-process lock; held by writers before lock_. Made with the first record: most processes write none, and
  // one that only tells its version must not wait for others.
  std::unique_ptr<Mutex> mutex_;
  UniqueFile file_;
  std::string refusal_;
  int currentDay_ = -1;
  std::vector<LogFileInfo> knownFiles_;
};

// False if no record would be written. A caller that makes many records, or costly ones, asks this before it builds the
// fields.
bool IsLogOpen();

// The same for debug records, which follow a request on its path from client to tool and back.
bool IsDebugLogOpen();

// Writes a record to the log of the process; does nothing if there is none or if it is not open. Any thread may call
// it, and it never throws.
void WriteLog(int level, int component, const std::string& message, const Log::Fields& fields = {});

}  // namespace kestrun

#endif  // KESTRUN_RUNTIME_FILES_LOG_H_
