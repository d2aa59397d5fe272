#include "app/stub_base.h"

#include <set>
#include <vector>

#include "app/console.h"

namespace kestrun {

namespace {

constexpr u32 kIdBufferSize = 256;

// A pointer and not a counted one: stubs are objects on the stack of main.
StubBase* currentStub = nullptr;  // guarded by CurrentLock

std::string ResolveId(const Options& options) {
  const std::string id = GetBuildId(options);
  return id.empty() ? std::to_string(GetCurrentProcessId()) : id;
}

}  // namespace

StubBase::StubBase(IniFile& settings, const Options& options)
    : id_(ResolveId(options)), settings_(settings), options_(options) {}

StubBase* StubBase::GetCurrent() {
  return currentStub;
}

CriticalSection& StubBase::CurrentLock() {
  // Never destroyed: the console-control handler may hold it while the process ends.
  static CriticalSection* const lock = new CriticalSection;
  return *lock;
}

CurrentStub::CurrentStub(StubBase& stub) {
  const Lock lock(StubBase::CurrentLock());
  currentStub = &stub;
}

CurrentStub::~CurrentStub() {
  const Lock lock(StubBase::CurrentLock());
  currentStub = nullptr;
}

std::string GetBuildId(const Options& options) {
  return options.id.empty() ? ReadBoundedVariable(kIdVariable, kIdBufferSize) : options.id;
}

std::string GetWorkingDirectory() {
  char buffer[kLongestFolder + 1] = {};
  GetCurrentDirectoryA(sizeof buffer, buffer);
  return buffer;
}

std::string ReadBoundedVariable(const char* name, u32 bufferSize) {
  std::vector<char> buffer(bufferSize);
  const u32 length = GetEnvironmentVariableA(name, buffer.data(), bufferSize);
  if (length < bufferSize) return std::string(buffer.data(), length);
  // One warning for each variable, since several parts of a stub read the same one. Without a lock: main thread only.
  static std::set<std::string> reported;
  if (reported.insert(name).second) PrintWarning(std::string(name) + " is too long, ignored");
  return {};
}

}  // namespace kestrun
