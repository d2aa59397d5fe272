// The base of the forms of the program that read settings: the id that ties a master and its clients together, the
// settings, a copy of the options, and the registration by which the console-control handler finds the running stub.
#ifndef KESTRUN_APP_STUB_BASE_H_
#define KESTRUN_APP_STUB_BASE_H_

#include <string>

#include "app/options.h"
#include "runtime/base/critical_section.h"
#include "runtime/base/rc_ptr.h"
#include "runtime/files/ini_file.h"

namespace kestrun {

// A stub is an object on the stack of main. Run is called once, on the main thread. Stop is called on the
// console-control handler's thread, at any time while the stub is registered, and the process ends right after it.
class StubBase : public rc_base {
 public:
  // The id is Options::id, else KESTRUN_ID, else this process's own id. The settings outlive the stub.
  StubBase(IniFile& settings, const Options& options);
  ~StubBase() override = default;

  // The whole work of the process; the result is its exit code.
  virtual int Run() = 0;
  virtual void Stop(const std::string& reason) = 0;

  const std::string& GetId() const { return id_; }

  // The registered stub, or null. It stays valid for as long as the caller holds CurrentLock.
  static StubBase* GetCurrent();
  static CriticalSection& CurrentLock();

 protected:
  // Constant after construction.
  const std::string id_;
  IniFile& settings_;
  const Options options_;
};

// Registers a stub as the current one for a scope, after its construction and until before its destruction, so that
// Stop never runs on a partly constructed or destroyed stub: ~CurrentStub waits for a handler that holds CurrentLock.
class CurrentStub {
 public:
  explicit CurrentStub(StubBase& stub);
  ~CurrentStub();
  CurrentStub(const CurrentStub&) = delete;
  CurrentStub& operator=(const CurrentStub&) = delete;
};

inline constexpr char kIdVariable[] = "KESTRUN_ID";

// The id of the build that this process belongs to: Options::id, else KESTRUN_ID; empty for none. For the main thread.
std::string GetBuildId(const Options& options);

// The current directory; empty if it is longer than this, or the system can't tell it.
inline constexpr u32 kLongestFolder = 259;
std::string GetWorkingDirectory();

// An environment variable whose value has to fit a buffer of this size, its end mark included. Empty if it is not
// set; a longer value counts as not set, with a warning on the standard error stream, one for each variable. For the
// main thread.
std::string ReadBoundedVariable(const char* name, u32 bufferSize);

}  // namespace kestrun

#endif  // KESTRUN_APP_STUB_BASE_H_
