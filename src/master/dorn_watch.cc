#include "master/dorn_watch.h"

#include <cstdlib>

#include "master/master_log.h"
#include "platform/host.h"
#include "runtime/base/environment.h"

namespace kestrun {

namespace {

// The interval of the checks for a dorn while the master stops, or while there is no process to wait for.
constexpr u32 kCheckMs = 100;
// The interval of the checks beside a wait for a dorn's process, whose end not every system signals.
constexpr u32 kSafetyCheckMs = 1000;
// A dorn holds the lock while it waits for the end of this process, so waiting for the lock without a limit would be a
// deadlock.
constexpr u32 kLockTimeoutMs = 50;
// Less than the two seconds that a dorn waits for a forced end.
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
  // A tool of this master may itself start a master, which is not the dorn's.
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
  // The events come before the record names this process, because a dorn that finds it there opens them.
  alive_.Reset(CreateEventA(nullptr, TRUE, FALSE, GetDornMasterName(options.id).c_str()));
  if (!alive_) throw SyncException(static_cast<i32>(GetLastError()), "CreateEvent() failed in DornWatch");
  u64 expected = DornSession::MakeMaster(dornProcess, 0);
  // The events were made by the dorn that started this master. They are gone if that dorn was killed before they were
  // opened here.
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
  // The dorn that leaves signals the stop event itself, unless it is killed before it does.
  SetEvent(stopEvent_.Get());
  while (session_->ending != DornSession::kEndsByForce) {
    if (!HasUsers()) EndByForce();
    if (end_.Wait(kCheckMs)) return;
  }
  if (!end_.Wait(kForceAfterMs)) EndByForce();
}

// Waits until a dorn ends, the master is told to stop, or the next check is due. False if the thread is to end.
bool DornWatch::AwaitChange() {
  if (!user_) FindUser();
  // The stop event stays signalled. If it was not a dorn that signalled it, `ending` stays kRuns, and a wait that
  // included the event would return at once again and again.
  const bool isStopped = stopEvent_ && WaitForHandle(stopEvent_.Get(), 0);
  if (!user_ || !stopEvent_ || isStopped) return !end_.Wait(kCheckMs);
  const HANDLE handles[] = {end_.GetHandle(), user_.Get(), stopEvent_.Get()};
  const DWORD index = WaitForMultipleObjects(3, handles, FALSE, kSafetyCheckMs);
  if (index == WAIT_OBJECT_0 + 1) ForgetUser();
  return index != WAIT_OBJECT_0;
}

// Opens the first dorn of the record that lives. Leaves user_ empty if there is none.
void DornWatch::FindUser() {
  for (const std::atomic<u32>& user : session_->users) {
    userId_ = user;
    if (userId_ != 0) user_.Reset(OpenProcess(SYNCHRONIZE, FALSE, userId_));
    if (user_ && !WaitForHandle(user_.Get(), 0)) return;
    user_.Reset();
  }
}

// Removes the dorn that has ended from the record. Its process can still be opened until the parent has waited for it,
// so that FindUser might choose it again.
void DornWatch::ForgetUser() {
  user_.Reset();
  for (std::atomic<u32>& user : session_->users) {
    u32 ended = userId_;
    user.compare_exchange_strong(ended, 0);
  }
}

// True if the last dorn was killed. A dorn joins under the lock, so a joining dorn is either seen by the second check
// here, or finds kEndsByForce and waits for the end of this master.
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
