#include "master/dorn_watch.h"

#include <cstdlib>

#include "master/master_log.h"
#include "platform/host.h"
#include "runtime/base/environment.h"

namespace kestrun {

namespace {

// How often a master that ends, or knows no dorn whose end would wake it, looks whether one is left.
constexpr u32 kLookMs = 100;
// The same beside a dorn that it knows: a system without a notice of a process's end does not wake it.
constexpr u32 kSafetyLookMs = 1000;
// A dorn holds the lock while it waits for the end of this process, so the thread must not wait for the lock alone.
constexpr u32 kLockTimeoutMs = 50;
constexpr u32 kForceAfterMs = 1200;

UniqueHandle OpenEventOfDorn(const std::string& name) {
  return UniqueHandle(OpenEventA(EVENT_MODIFY_STATE | SYNCHRONIZE, FALSE, name.c_str()));
}

bool HasUsers() {
  return static_cast<bool>(UniqueHandle(OpenEventA(SYNCHRONIZE, FALSE, kDornUsersName)));
}

}  // namespace

std::unique_ptr<DornWatch> DornWatch::Open(const Options& options) {
  std::string dorn;
  if (!GetEnvironmentValue(kDornVariable, dorn)) return nullptr;
  SetEnvironmentVariableA(kDornVariable, nullptr);
  char* end = nullptr;
  const u32 dornProcess = static_cast<u32>(std::strtoul(dorn.c_str(), &end, 10));
  if (dornProcess == 0 || end != ":" + options.id) return nullptr;
  return std::make_unique<DornWatch>(options, dornProcess);
}

DornWatch::DornWatch(const Options& options, u32 dornProcess)
    : stopEvent_(OpenEventOfDorn(options.stopEvent)),
      readyEvent_(OpenEventOfDorn(options.readyEvent)),
      finishEvent_(OpenEventOfDorn(options.finishEvent)),
      join_(kDornJoinName),
      region_(kDornSessionName, 0, false) {
  view_ = region_.CreateView(0, MappedFile::kWholeSize, true);
  if (view_->GetSize() < sizeof(DornSession)) throw SyncException("the record of the dorn session is too small");
  session_ = static_cast<DornSession*>(view_->GetData());
  // All events before the record names this process, since a dorn that finds it there looks for them.
  alive_.Reset(CreateEventA(nullptr, TRUE, FALSE, GetDornMasterName(options.id).c_str()));
  if (!alive_) throw SyncException(static_cast<i32>(GetLastError()), "CreateEvent() failed in DornWatch");
  u64 expected = DornSession::MakeMaster(dornProcess, 0);
  // They were made by the dorn that started this master, and are gone if it was killed before they were opened here.
  const bool hasEvents = stopEvent_ && readyEvent_ && finishEvent_;
  if (!hasEvents || !session_->master.compare_exchange_strong(
                        expected, DornSession::MakeMaster(dornProcess, GetCurrentProcessId()))) {
    throw SyncException("the dorn that started this master has gone");
  }
  thread_ = new Thread("Dorn watch");
  if (!thread_->Start(MakeDelegate(&DornWatch::Watch, this))) throw SyncException("no thread to watch dorn");
}

DornWatch::~DornWatch() {
  end_.Signal();
  thread_->Wait(kNoLimit);
}

void DornWatch::SettleJobs(IniFile& settings, u32 defaultJobs) {
  const char* const key = "LocalSettings/MaxConcurrentJobs";
  if (const u32 wanted = session_->wantedJobs) {
    settings.Remove(key);
    settings.SetInt(key, wanted);
  }
  session_->jobs = settings.GetInt(key, defaultJobs);
}

void DornWatch::Watch() {
  // Here, so that no build waits for it.
  platform::RemoveStaleObjects();
  while (session_->ending == DornSession::kRuns) {
    if (IsLeft()) EndByForce();
    if (!AwaitChange()) return;
  }
  // The dorn that leaves has signalled the stop event, unless it was killed before that.
  SetEvent(stopEvent_.Get());
  while (session_->ending != DornSession::kEndsByForce) {
    if (!HasUsers()) EndByForce();
    if (end_.Wait(kLookMs)) return;
  }
  if (!end_.Wait(kForceAfterMs)) EndByForce();
}

// Waits until a dorn ends, the master is told to stop, or it is time to look again. False if the thread is to end.
bool DornWatch::AwaitChange() {
  if (!user_) FindUser();
  // A stop that did not come from a dorn stays signalled.
  const bool isStopped = stopEvent_ && WaitForHandle(stopEvent_.Get(), 0);
  if (!user_ || !stopEvent_ || isStopped) return !end_.Wait(kLookMs);
  const HANDLE handles[] = {end_.GetHandle(), user_.Get(), stopEvent_.Get()};
  const DWORD index = WaitForMultipleObjects(3, handles, FALSE, kSafetyLookMs);
  if (index == WAIT_OBJECT_0 + 1) ForgetUser();
  return index != WAIT_OBJECT_0;
}

// Leaves user_ empty if there is none that lives in the record.
void DornWatch::FindUser() {
  for (const std::atomic<u32>& user : session_->users) {
    userId_ = user;
    if (userId_ != 0) user_.Reset(OpenProcess(SYNCHRONIZE, FALSE, userId_));
    if (user_ && !WaitForHandle(user_.Get(), 0)) return;
    user_.Reset();
  }
}

// A process that has ended can be opened until its parent has waited for it, so it must not be found again.
void DornWatch::ForgetUser() {
  user_.Reset();
  for (std::atomic<u32>& user : session_->users) {
    u32 ended = userId_;
    user.compare_exchange_strong(ended, 0);
  }
}

// The last dorn was killed. One that joins does so under the lock: it either is seen here, or sees that this master
// ends.
bool DornWatch::IsLeft() {
  if (HasUsers() || !join_.Lock(kLockTimeoutMs)) return false;
  const bool isLeft = !HasUsers() && session_->ending == DornSession::kRuns;
  if (isLeft) session_->ending = DornSession::kEndsByForce;
  join_.Unlock();
  return isLeft;
}

// The jobs' objects close with the process, which ends the tools that are still running.
void DornWatch::EndByForce() {
  WriteMasterLog(Log::Warning, "Exiting process early", {{"reason", "no dorn is left"}});
  ExitProcess(1);
}

}  // namespace kestrun
