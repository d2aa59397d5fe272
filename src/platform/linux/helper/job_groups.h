// Control groups (cgroup v2) for jobs: each supervisor and everything that is ever below it is in one group, which the
// kernel ends as a whole.
//
// A supervisor adopts the processes that its tool leaves behind, and ends them. If the supervisor and the zygote above
// it are killed, those processes go to init, and nothing tells any more which tool they came from. In a group that
// bears their supervisor's number they are still found. A supervisor does not exit before everything below it has
// ended; so a group whose supervisor is gone contains only processes that are to be ended.
//
//   <own group>/kestrun-job-<name space of process ids>-<process id of the supervisor>
//
//   the supervisor            makes the group and enters it before it makes its first tool
//   the zygote                ends the group of each supervisor that has ended, and at its start those that others left
//   the process itself        ends the group of a supervisor that was killed, if the zygote did not
//
// Groups are made only below a group that was delegated to this user or made by this layer, never in the root of all
// groups. On other systems no groups are used; finding that out costs some system calls when a zygote starts.
//
// An object is a value without resources. All functions may be called from any thread; Enter is for a process with one
// thread. Failures are not reported: a job without a group is supervised all the same.
#ifndef KESTRUN_PLATFORM_LINUX_HELPER_JOB_GROUPS_H_
#define KESTRUN_PLATFORM_LINUX_HELPER_JOB_GROUPS_H_

#include <sys/types.h>

#include <string>
#include <string_view>

namespace kestrun::platform {

class JobGroups {
 public:
  // For groups below the one in this folder; with "" there are none. `nameSpace` is the name space of process ids to
  // which this process's id belongs.
  JobGroups(std::string folder, const std::string& nameSpace);

  // Below the group of this process, if it may make groups there.
  static JobGroups OfThisProcess();

  // Moves the process into a new group of its own number. False if that can't be done.
  bool Enter(pid_t supervisor) const;

  // Kills all that is in the group of a supervisor that has ended, and removes it. A group that is not empty yet stays
  // for a later Sweep.
  void End(pid_t supervisor) const;

  // The same for each supervisor that has ended.
  void Sweep() const;

 private:
  std::string folder_;
  std::string prefix_;  // of the groups' names
};

// The path of the group of version 2 in the text of /proc/<id>/cgroup, from the root of all groups; "" for that root or
// none.
std::string GroupPath(std::string_view text);

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_HELPER_JOB_GROUPS_H_
