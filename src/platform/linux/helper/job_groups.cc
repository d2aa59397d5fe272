#include "platform/linux/helper/job_groups.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <utility>
#include <vector>

#include "platform/linux/base/file_descriptor.h"
#include "platform/linux/base/process_stat.h"

namespace kestrun::platform {

namespace {

constexpr std::string_view kPrefix = "kestrun-job-";
// The mount points of version 2 of the control groups: alone, or beside version 1.
constexpr const char* kMounts[] = {"/sys/fs/cgroup", "/sys/fs/cgroup/unified"};

std::string ReadText(const char* path) {
  const FileDescriptor file(open(path, O_RDONLY | O_CLOEXEC));
  char text[4096];
  const ssize_t count = file ? read(file.get(), text, sizeof text) : 0;
  return {text, count > 0 ? static_cast<std::size_t>(count) : 0};
}

// Writes to a file that exists: the kernel makes the files of a group with the group.
bool WriteTo(const std::string& path, const std::string& text) {
  const FileDescriptor file(open(path.c_str(), O_WRONLY | O_CLOEXEC));
  return file && write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

// The names of the supervisors' groups in a folder.
std::vector<std::string> ListGroups(const std::string& folder) {
  std::vector<std::string> found;
  const auto close = [](DIR* directory) { closedir(directory); };
  const std::unique_ptr<DIR, decltype(close)> directory(opendir(folder.c_str()), close);
  while (const dirent* const entry = directory ? readdir(directory.get()) : nullptr) {
    if (std::string_view(entry->d_name).starts_with(kPrefix)) found.push_back(entry->d_name);
  }
  return found;
}

// True only if it is certain that the process has ended, because everything in its group is then killed. A process of
// another user fails kill with EPERM and counts as alive.
bool HasEnded(pid_t pid) {
  ProcessStat stat{};
  return (kill(pid, 0) != 0 && errno == ESRCH) || (ReadProcessStat(pid, stat) && stat.state == 'Z');
}

// Removes the groups inside first, because the kernel refuses to remove a group that contains others: a tool that is a
// program of this kind had supervisors of its own.
void RemoveWithInner(const std::string& group) {
  for (const std::string& inner : ListGroups(group)) RemoveWithInner(group + "/" + inner);
  rmdir(group.c_str());
}

// "pid:[4026531836]"; the same number in another name space is another process.
std::string NameSpaceOfIds() {
  char name[64];
  const ssize_t length = readlink("/proc/self/ns/pid", name, sizeof name);
  std::string digits;
  for (const char c : std::string_view(name, length > 0 ? static_cast<std::size_t>(length) : 0)) {
    if (c >= '0' && c <= '9') digits += c;
  }
  return digits;
}

}  // namespace

std::string GroupPath(std::string_view text) {
  const std::size_t start = text.starts_with("0::") ? 0 : text.find("\n0::");
  if (start == text.npos) return "";
  text.remove_prefix(text.find("0::", start) + 3);
  const std::string_view path = text.substr(0, text.find('\n'));
  return path == "/" ? "" : std::string(path);
}

JobGroups::JobGroups(std::string folder, const std::string& nameSpace)
    : folder_(std::move(folder)), prefix_(std::string(kPrefix) + nameSpace + "-") {}

JobGroups JobGroups::OfThisProcess() {
  const std::string path = GroupPath(ReadText("/proc/self/cgroup"));
  if (path.empty()) return JobGroups("", "");
  for (const char* const mount : kMounts) {
    const std::string folder = mount + path;
    // Making a group needs write access to the folder, and moving a process into it needs that to cgroup.procs of this
    // group, from which it is moved. cgroup.kill exists since Linux 5.14; without it a group can't be ended as a whole.
    const bool isOurs = access((folder + "/cgroup.procs").c_str(), W_OK) == 0 && access(folder.c_str(), W_OK) == 0;
    if (isOurs && access((folder + "/cgroup.kill").c_str(), W_OK) == 0) return JobGroups(folder, NameSpaceOfIds());
  }
  return JobGroups("", "");
}

bool JobGroups::Enter(pid_t supervisor) const {
  if (folder_.empty()) return false;
  const std::string group = folder_ + "/" + prefix_ + std::to_string(supervisor);
  // The group may exist already: process ids are used again, and a group of an earlier supervisor may not have been
  // removed. A failure shows in the write.
  mkdir(group.c_str(), 0700);
  return WriteTo(group + "/cgroup.procs", std::to_string(supervisor));
}

void JobGroups::End(pid_t supervisor) const {
  if (folder_.empty()) return;
  const std::string group = folder_ + "/" + prefix_ + std::to_string(supervisor);
  WriteTo(group + "/cgroup.kill", "1");
  RemoveWithInner(group);
}

void JobGroups::Sweep() const {
  if (folder_.empty()) return;
  for (const std::string& name : ListGroups(folder_)) {
    if (!name.starts_with(prefix_)) continue;
    const pid_t supervisor = std::atoi(name.c_str() + prefix_.size());
    if (supervisor > 0 && HasEnded(supervisor)) End(supervisor);
  }
}

}  // namespace kestrun::platform
