// Job objects: a set of children with limits in common. The work is in each child's supervisor, which knows all
// processes below it; a job forwards its calls to its children. Children stay in the list after their end, because the
// times and counts of a job include them.
//
// Locks: the job's mutex is taken before a child's, and it is released before a call that may block or wake other
// threads.
#include <algorithm>
#include <cstring>
#include <mutex>
#include <vector>

#include "platform/api/process_api.h"
#include "platform/linux/objects/handle_table.h"
#include "platform/linux/process/child_process.h"

namespace kestrun::platform {
namespace {

// The limits that may be set. Only KILL_ON_JOB_CLOSE has an effect; the others need none, since no process can leave a
// job here.
constexpr DWORD kKnownLimits =
    JOB_OBJECT_LIMIT_DIE_ON_UNHANDLED_EXCEPTION | JOB_OBJECT_LIMIT_BREAKAWAY_OK | JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;

class JobObject : public Object {
 public:
  static constexpr ObjectKind kKind = ObjectKind::kJob;

  JobObject() : Object(kKind) {}

  void LastHandleClosed() override {
    for (const auto& child : Children()) child->CloseJob();
  }

  bool Add(const std::shared_ptr<ChildProcess>& child) {
    const std::lock_guard lock(mutex_);
    if (!child->EnterJob((limits_ & JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE) != 0)) return false;
    children_.push_back(child);
    return true;
  }

  void SetLimits(DWORD limits) {
    {
      const std::lock_guard lock(mutex_);
      limits_ = limits;
    }
    for (const auto& child : Children()) child->SetKillOnClose((limits & JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE) != 0);
  }

  DWORD limits() const {
    const std::lock_guard lock(mutex_);
    return limits_;
  }

  std::vector<std::shared_ptr<ChildProcess>> Children() const {
    const std::lock_guard lock(mutex_);
    return children_;
  }

 private:
  mutable std::mutex mutex_;
  DWORD limits_ = 0;                                     // guarded by mutex_
  std::vector<std::shared_ptr<ChildProcess>> children_;  // guarded by mutex_
};

BOOL Refuse(DWORD error) {
  SetLastError(error);
  return FALSE;
}

JOBOBJECT_BASIC_ACCOUNTING_INFORMATION Account(const JobObject& job) {
  JOBOBJECT_BASIC_ACCOUNTING_INFORMATION total = {};
  for (const auto& child : job.Children()) {
    DWORD active = 0;
    const ProcessTimes times = child->TreeTimes(active);
    // Windows counts in units of 100 ns.
    total.TotalUserTime.QuadPart += static_cast<LONGLONG>(times.userUs) * 10;
    total.TotalKernelTime.QuadPart += static_cast<LONGLONG>(times.kernelUs) * 10;
    total.ActiveProcesses += active;
    ++total.TotalProcesses;
  }
  total.ThisPeriodTotalUserTime = total.TotalUserTime;
  total.ThisPeriodTotalKernelTime = total.TotalKernelTime;
  return total;
}

template <class Info>
BOOL Answer(const Info& info, LPVOID buffer, DWORD size, LPDWORD returned) {
  if (size < sizeof info) return Refuse(ERROR_INSUFFICIENT_BUFFER);
  std::memcpy(buffer, &info, sizeof info);
  if (returned != nullptr) *returned = sizeof info;
  return TRUE;
}

}  // namespace
}  // namespace kestrun::platform

using namespace kestrun::platform;

HANDLE CreateJobObjectA(LPSECURITY_ATTRIBUTES, LPCSTR) {
  return AllocateHandle(std::make_shared<JobObject>());
}

BOOL SetInformationJobObject(HANDLE job, JOBOBJECTINFOCLASS infoClass, LPVOID info, DWORD size) {
  const std::shared_ptr<JobObject> object = LookUp<JobObject>(job);
  if (!object) return FALSE;
  JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits;
  if (infoClass != JobObjectExtendedLimitInformation || size != sizeof limits) return Refuse(ERROR_INVALID_PARAMETER);
  std::memcpy(&limits, info, sizeof limits);
  const DWORD flags = limits.BasicLimitInformation.LimitFlags;
  if ((flags & ~kKnownLimits) != 0) return Refuse(ERROR_NOT_SUPPORTED);
  object->SetLimits(flags);
  return TRUE;
}

BOOL QueryInformationJobObject(HANDLE job, JOBOBJECTINFOCLASS infoClass, LPVOID info, DWORD size, LPDWORD returned) {
  const std::shared_ptr<JobObject> object = LookUp<JobObject>(job);
  if (!object) return FALSE;
  if (infoClass == JobObjectBasicAccountingInformation) return Answer(Account(*object), info, size, returned);
  JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits = {};
  limits.BasicLimitInformation.LimitFlags = object->limits();
  for (const auto& child : object->Children()) {
    limits.PeakProcessMemoryUsed = std::max(limits.PeakProcessMemoryUsed, static_cast<SIZE_T>(child->PeakBytes()));
  }
  if (infoClass == JobObjectExtendedLimitInformation) return Answer(limits, info, size, returned);
  if (infoClass == JobObjectBasicLimitInformation) return Answer(limits.BasicLimitInformation, info, size, returned);
  return Refuse(ERROR_INVALID_PARAMETER);
}

BOOL AssignProcessToJobObject(HANDLE job, HANDLE process) {
  const std::shared_ptr<JobObject> object = LookUp<JobObject>(job);
  const std::shared_ptr<ProcessObject> target = LookUp<ProcessObject>(process);
  if (!object || !target) return FALSE;
  const std::shared_ptr<ChildProcess> child = std::dynamic_pointer_cast<ChildProcess>(target);
  return (child && object->Add(child)) || Refuse(ERROR_ACCESS_DENIED);
}

BOOL TerminateJobObject(HANDLE job, UINT exitCode) {
  const std::shared_ptr<JobObject> object = LookUp<JobObject>(job);
  if (!object) return FALSE;
  for (const auto& child : object->Children()) child->KillAll(exitCode);
  return TRUE;
}

BOOL IsProcessInJob(HANDLE process, HANDLE job, BOOL* result) {
  const std::shared_ptr<ProcessObject> target = LookUp<ProcessObject>(process);
  if (!target) return FALSE;
  *result = FALSE;
  const auto child = std::dynamic_pointer_cast<ChildProcess>(target);
  if (job == nullptr) {
    *result = child && child->IsInJob();
    return TRUE;
  }
  const std::shared_ptr<JobObject> object = LookUp<JobObject>(job);
  if (!object) return FALSE;
  for (const auto& member : object->Children()) {
    if (member == child) *result = TRUE;
  }
  return TRUE;
}
