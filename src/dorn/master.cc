#include "dorn/master.h"

#include <algorithm>
#include <cstring>

#include "dorn/command_line.h"
#include "dorn/options.h"
#include "dorn/report.h"
#include "platform/host.h"
#include "transport/shared/mutex_owner.h"

namespace kestrun::dorn {

namespace {

// A master is ready within seconds; one that is not hangs.
constexpr u32 kReadyLimitMs = 60000;
// Longer than the master gives its own threads.
constexpr u32 kEndLimitMs = 35000;
// Longer than the master takes to end by force.
constexpr u32 kForcedEndLimitMs = 2000;
constexpr u32 kErrorsLimitMs = 1000;
constexpr int kRegionTries = 100;
// A debugger stops a process for a moment when it attaches.
constexpr u32 kStoppedMs = 1000;
constexpr u32 kStoppedLookMs = 100;

std::string MakeId() {
  return "dorn_" + std::to_string(GetCurrentProcessId()) + "_" + std::to_string(GetTickCount());
}

std::string ReadyName(const std::string& id) {
  return "dorn_ready_" + id;
}
std::string StopName(const std::string& id) {
  return "dorn_stop_" + id;
}
std::string FinishName(const std::string& id) {
  return "dorn_finish_" + id;
}

UniqueHandle MakeEvent(const std::string& name, bool isManual) {
  UniqueHandle event(CreateEventA(nullptr, isManual, FALSE, name.c_str()));
  if (!event) throw SyncException(static_cast<i32>(GetLastError()), "CreateEvent() failed for " + name);
  return event;
}

UniqueHandle OpenExisting(const std::string& name) {
  return UniqueHandle(OpenEventA(EVENT_MODIFY_STATE | SYNCHRONIZE, FALSE, name.c_str()));
}

// A process that has ended may still be opened for a while.
bool IsRunning(const UniqueHandle& process) {
  return process && WaitForSingleObject(process.Get(), 0) == WAIT_TIMEOUT;
}

// Index of the signalled handle, or a number above both.
DWORD WaitForEither(HANDLE first, HANDLE second, u32 limitMs) {
  const HANDLE handles[] = {first, second};
  return WaitForMultipleObjects(second != nullptr ? 2 : 1, handles, FALSE, limitMs);
}

}  // namespace

Master::Master() : join_(kDornJoinName) {}

Master::Start Master::Join(const Path& program, const MasterWishes& wishes, HANDLE interruption) {
  const DWORD outcome = TakeLock(interruption, INFINITE, Patience::kUntilHeld);
  if (outcome == WAIT_OBJECT_0 + 1) return Start::kInterrupted;
  // WAIT_ABANDONED_0: the dorn that held the lock was killed. Each step leaves a record that Find understands.
  const Start start = JoinWithLock(program, wishes, interruption);
  join_.Unlock();
  return start;
}

// Waits for the mutex of the session, with results as of WaitForEither. The wait is cut into slices, because no event
// tells that the holder has been stopped: a stopped dorn would keep all others waiting without a word. The user is told
// of that once, and a caller that can do without the mutex then gets WAIT_TIMEOUT.
DWORD Master::TakeLock(HANDLE interruption, u32 limitMs, Patience patience) {
  bool isTold = false;
  for (u32 waitedMs = 0;; waitedMs += kStoppedMs) {
    const u32 sliceMs = std::min(limitMs - waitedMs, kStoppedMs);
    const DWORD outcome = WaitForEither(join_.GetHandle(), interruption, sliceMs);
    if (outcome != WAIT_TIMEOUT || (limitMs != INFINITE && waitedMs + sliceMs == limitMs)) return outcome;
    isTold = isTold || TellOfStoppedHolder();
    if (isTold && patience == Patience::kUntilHolderIsStopped) return WAIT_TIMEOUT;
  }
}

bool Master::TellOfStoppedHolder() const {
  const u32 holder = GetMutexOwner(join_.GetHandle()).process;
  if (holder == 0 || !platform::IsStopped(holder)) return false;
  PrintWarning("process " + std::to_string(holder) +
               ", which is stopped, keeps every dorn from joining and leaving the master; let it go on, or end it");
  return true;
}

Master::Start Master::JoinWithLock(const Path& program, const MasterWishes& wishes, HANDLE interruption) {
  OpenSession();
  // Before the record is read: from here on a master that runs does not end because its last dorn was killed.
  users_ = MakeEvent(kDornUsersName, true);
  EnterAsUser();
  u64 seen = session_->master;
  do {
    switch (Find(DornSession::GetMasterProcess(seen))) {
      case Found::kRunning: {
        if (!StaysStopped(interruption)) return JoinRunning(wishes, interruption);
        if (!HasNoOtherUser()) return Start::kStopped;
        EndByForce();
        break;
      }
      case Found::kEnding: {
        const Start start = AwaitEarlierEnd(interruption);
        if (start != Start::kReady) return start;
        break;
      }
      case Found::kNone:
        break;
    }
    // Fails if a master whose dorn was killed has just entered itself. That one is then found, and joined.
  } while (!session_->master.compare_exchange_strong(seen, DornSession::MakeMaster(GetCurrentProcessId(), 0)));
  return StartNew(program, wishes, interruption);
}

// With the lock.
// The event tells of every dorn that has it open, so this one lets go of it for the question. The master can't take
// that gap for the end of the last dorn: it decides to end under the same mutex.
bool Master::HasNoOtherUser() {
  users_.Reset();
  const bool isLast = IsLast();
  users_ = MakeEvent(kDornUsersName, true);
  return isLast;
}

Master::Start Master::AwaitEarlierEnd(HANDLE interruption) {
  if (StaysStopped(interruption)) EndByForce();
  switch (WaitForEither(process_.Get(), interruption, kEndLimitMs)) {
    case WAIT_OBJECT_0:
      return Start::kReady;
    case WAIT_OBJECT_0 + 1:
      return Start::kInterrupted;
    default:
      // Two masters must not run at once: together they would run twice the tools of the limit.
      PrintError("the master of an earlier build does not end; the build command was not run");
      return Start::kFailed;
  }
}

// Makes the region, or opens that of other dorns. Those may end between the two attempts, so that both fail.
std::unique_ptr<MappedFile> Master::OpenRegion() {
  for (int tries = 1;; ++tries) {
    try {
      return std::make_unique<MappedFile>(kDornSessionName, DornSession::kSize, true);
    } catch (const MappedFileException&) {
      if (tries == kRegionTries) throw;
    }
    try {
      return std::make_unique<MappedFile>(kDornSessionName, 0, false);
    } catch (const MappedFileException&) {
      Sleep(1);
    }
  }
}

void Master::OpenSession() {
  region_ = OpenRegion();
  view_ = region_->CreateView(0, MappedFile::kWholeSize, true);
  if (view_->GetSize() < sizeof(DornSession)) throw SyncException("the record of the dorn session is too small");
  session_ = static_cast<DornSession*>(view_->GetData());
  const u32 version = session_->version;
  if (version != 0 && version != DornSession::kVersion) throw SyncException("a dorn of another version runs");
}

// With the lock. Takes the entry of a dorn that has ended, or a free one. If there is none the master does not need
// this dorn's: it waits for the end of the others.
void Master::EnterAsUser() {
  for (std::atomic<u32>& user : session_->users) {
    if (user != 0 && IsRunning(UniqueHandle(OpenProcess(SYNCHRONIZE, FALSE, user)))) continue;
    user = GetCurrentProcessId();
    return;
  }
}

Master::Found Master::Find(u32 processId) {
  if (processId == 0) return Found::kNone;
  // Any process of the user may have written the record, and the process id may by now be that of another process. Only
  // a live master has the event of its id open.
  const std::string id(session_->id, strnlen(session_->id, DornSession::kIdSize));
  if (!IsUsableId(id) || !OpenExisting(GetDornMasterName(id))) return Found::kNone;
  process_.Reset(OpenProcess(SYNCHRONIZE, FALSE, processId));
  if (!process_) return Found::kNone;
  if (session_->ending != DornSession::kRuns) return Found::kEnding;
  // The master has these open while it lives, so that a dorn may join after the one that made them has ended.
  ready_ = OpenExisting(ReadyName(id));
  stop_ = OpenExisting(StopName(id));
  finish_ = OpenExisting(FinishName(id));
  if (!ready_ || !stop_ || !finish_) return Found::kNone;
  id_ = id;
  return Found::kRunning;
}

Master::Start Master::JoinRunning(const MasterWishes& wishes, HANDLE interruption) {
  if (!wishes.id.empty() && wishes.id != id_) {
    PrintError("a master with the id " + id_ + " runs; the build command was not run");
    return Start::kFailed;
  }
  const Start start = AwaitReady(interruption);
  // The master enters its limit before it says that it is ready.
  const u32 jobs = session_->jobs;
  if (start == Start::kReady && wishes.jobs != 0 && wishes.jobs != jobs) {
    Print("joined a master that runs " + std::to_string(jobs) + " tools at once; -j " + std::to_string(wishes.jobs) +
          " does not change that");
  }
  return start;
}

Master::Start Master::StartNew(const Path& program, const MasterWishes& wishes, HANDLE interruption) {
  id_ = wishes.id.empty() ? MakeId() : wishes.id;
  ready_ = MakeEvent(ReadyName(id_), true);
  stop_ = MakeEvent(StopName(id_), true);
  finish_ = MakeEvent(FinishName(id_), false);
  session_->version = DornSession::kVersion;
  session_->ending = DornSession::kRuns;
  session_->jobs = 0;
  session_->wantedJobs = wishes.jobs;
  std::memset(session_->id, 0, DornSession::kIdSize);
  id_.copy(session_->id, DornSession::kIdSize - 1);
  if (!Launch(program)) {
    PrintError("the master cannot be started");
    return Start::kFailed;
  }
  const Start start = AwaitReady(interruption);
  // Still with the lock, so that no other dorn has joined this master.
  if (start != Start::kReady) started_->Terminate();
  return start;
}

bool Master::Launch(const Path& program) {
  started_ = new Process("");
  started_->SetApplicationPath(program);
  const std::string commandLine = JoinArguments(
      {program.ToString(), "-master", "-id", id_, "-er", ReadyName(id_), "-es", StopName(id_), "-ef", FinishName(id_)});
  // The variable is set for this one child. It is removed again, so that the build command does not inherit it.
  SetEnvironmentVariableA(kDornVariable, (std::to_string(GetCurrentProcessId()) + ":" + id_).c_str());
  // The master outlives this dorn if others use it: it leaves dorn's job, which may end with dorn, and gets pipes for
  // its streams, so that it does not hold dorn's own open.
  const bool isStarted = started_->Start(
      commandLine, Process::BREAKAWAY | Process::PIPE_STDIN | Process::PIPE_STDOUT | Process::PIPE_STDERR, nullptr, 0);
  SetEnvironmentVariableA(kDornVariable, nullptr);
  if (!isStarted) return false;
  process_ = started_->GetWaitHandle();
  errors_.Start(started_->GetStderr());
  return true;
}

Master::Start Master::AwaitReady(HANDLE interruption) {
  const HANDLE handles[] = {ready_.Get(), process_.Get(), interruption};
  switch (WaitForMultipleObjects(3, handles, FALSE, kReadyLimitMs)) {
    case WAIT_OBJECT_0:
      return Start::kReady;
    case WAIT_OBJECT_0 + 1: {
      // The master's own message comes first, and dorn's line explains it.
      errors_.WaitForEnd(kErrorsLimitMs);
      DWORD code = 0;
      GetExitCodeProcess(process_.Get(), &code);
      PrintError("the master ended at its start with exit code " + std::to_string(code) +
                 "; the build command was not run");
      return Start::kFailed;
    }
    case WAIT_OBJECT_0 + 2:
      return Start::kInterrupted;
    default:
      PrintError("the master did not become ready; the build command was not run");
      return Start::kFailed;
  }
}

void Master::Leave(bool isInterrupted, HANDLE interruption) {
  if (!users_) return;
  // The lock may be held by a dorn that waits for its master to start; an interrupted dorn does not wait that long.
  const DWORD outcome = TakeLock(isInterrupted ? nullptr : interruption, isInterrupted ? kForcedEndLimitMs : INFINITE,
                                 Patience::kUntilHolderIsStopped);
  const bool hasLock = outcome == WAIT_OBJECT_0 || outcome == WAIT_ABANDONED_0;
  users_.Reset();
  // Without the lock it is unknown whether others are left; the master finds out by itself (master/dorn_watch.h).
  if (!hasLock) return;
  if (process_ && IsLast()) AwaitEnd(isInterrupted, interruption);
  join_.Unlock();
}

// The master's own check opens the event for a moment, so that it may be found here though no dorn is left. The master
// finds it gone at its next check, and ends by itself.
bool Master::IsLast() {
  return !OpenExisting(kDornUsersName);
}

// With the lock, so that a dorn that joins now starts a master only when this one has ended.
void Master::AwaitEnd(bool isInterrupted, HANDLE interruption) {
  // Exists while this process lives, so that the master ends at once if this process is killed.
  users_ = MakeEvent(kDornUsersName, true);
  session_->ending = isInterrupted ? DornSession::kEndsByForce : DornSession::kEnds;
  SetEvent(finish_.Get());
  SetEvent(stop_.Get());
  if (!isInterrupted && AwaitOwnEnd(interruption)) return;
  session_->ending = DornSession::kEndsByForce;
  if (StaysStopped(nullptr) || WaitForSingleObject(process_.Get(), kForcedEndLimitMs) != WAIT_OBJECT_0) EndByForce();
}

// False if it has to be ended by force.
bool Master::AwaitOwnEnd(HANDLE interruption) const {
  for (u32 waitedMs = 0; waitedMs < kEndLimitMs && !StaysStopped(interruption); waitedMs += kStoppedMs) {
    const DWORD outcome = WaitForEither(process_.Get(), interruption, kStoppedMs);
    if (outcome != WAIT_TIMEOUT) return outcome == WAIT_OBJECT_0;
  }
  return false;
}

// True once the master has been stopped for a while. False as soon as it goes on or ends, or after an interruption.
bool Master::StaysStopped(HANDLE interruption) const {
  for (u32 waitedMs = 0; platform::IsStopped(GetProcessId()); waitedMs += kStoppedLookMs) {
    if (waitedMs >= kStoppedMs) return true;
    if (WaitForEither(process_.Get(), interruption, kStoppedLookMs) != WAIT_TIMEOUT) return false;
  }
  return false;
}

// The tools that the master runs end with it.
void Master::EndByForce() const {
  const std::string process = "the master, process " + std::to_string(GetProcessId());
  const bool isStopped = platform::IsStopped(GetProcessId());
  // The handle in process_ may only be waited for.
  const UniqueHandle master(OpenProcess(PROCESS_TERMINATE, FALSE, GetProcessId()));
  if (!master || !TerminateProcess(master.Get(), 1)) return PrintError(process + ", does not end");
  PrintWarning(process + (isStopped ? ", is stopped and was ended by force" : ", did not end and was ended by force"));
  WaitForSingleObject(process_.Get(), kForcedEndLimitMs);
}

}  // namespace kestrun::dorn
