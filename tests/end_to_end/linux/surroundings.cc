#include "surroundings.h"

#include <grp.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <fstream>
#include <iostream>

#ifndef CLONE_NEWTIME
#define CLONE_NEWTIME 0x80
#endif

namespace kestrun::test {
namespace {

struct Rule {
  std::string name;
  std::string detail;
  unsigned long value;
};

Rule Parse(const std::string& word) {
  const std::size_t equals = word.find('=');
  const std::size_t colon = word.find(':');
  const bool hasDetail = colon < equals;
  return {word.substr(0, hasDetail ? colon : equals), hasDetail ? word.substr(colon + 1, equals - colon - 1) : "",
          std::stoul(word.substr(equals + 1))};
}

bool Install(std::vector<sock_filter> filter) {
  const sock_fprog program{static_cast<unsigned short>(filter.size()), filter.data()};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

sock_filter Load(std::size_t offset) {
  return BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<unsigned>(offset));
}
sock_filter Give(unsigned result) {
  return BPF_STMT(BPF_RET | BPF_K, result);
}
sock_filter SkipUnlessEqual(unsigned value, unsigned char count) {
  return BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, value, 0, count);
}

constexpr std::size_t kNumber = offsetof(seccomp_data, nr);
// The low half of an argument, on the little-endian machines that we run on.
constexpr std::size_t Argument(std::size_t index) {
  return offsetof(seccomp_data, args) + index * 8;
}

bool Refuse(const std::string& detail, unsigned error) {
  const std::size_t colon = detail.find(':');
  const auto number = static_cast<unsigned>(std::stoul(detail));
  if (colon == std::string::npos) {
    return Install(
        {Load(kNumber), SkipUnlessEqual(number, 1), Give(SECCOMP_RET_ERRNO | error), Give(SECCOMP_RET_ALLOW)});
  }
  const auto command = static_cast<unsigned>(std::stoul(detail.substr(colon + 1)));
  return Install({Load(kNumber), SkipUnlessEqual(number, 3), Load(Argument(1)), SkipUnlessEqual(command, 1),
                  Give(SECCOMP_RET_ERRNO | error), Give(SECCOMP_RET_ALLOW)});
}

// clone3 hides its flags from the filter; without it the C library makes threads by clone.
bool RefuseProcesses() {
  return Install({Load(kNumber), SkipUnlessEqual(SYS_clone3, 1), Give(SECCOMP_RET_ERRNO | ENOSYS),
#ifdef SYS_fork
                  SkipUnlessEqual(SYS_fork, 1), Give(SECCOMP_RET_ERRNO | EAGAIN), SkipUnlessEqual(SYS_vfork, 1),
                  Give(SECCOMP_RET_ERRNO | EAGAIN),
#endif
                  SkipUnlessEqual(SYS_clone, 3), Load(Argument(0)),
                  BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, CLONE_THREAD, 1, 0), Give(SECCOMP_RET_ERRNO | EAGAIN),
                  Give(SECCOMP_RET_ALLOW)});
}

bool Limit(int resource, rlim_t value) {
  const rlimit limit{value, value};
  return setrlimit(static_cast<__rlimit_resource>(resource), &limit) == 0;
}

// For this process and what it starts alone.
bool Mount(const std::string& folder, unsigned long bytes) {
  if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return false;
  const std::string size = "mode=0777,size=" + std::to_string(bytes == 0 ? 4096 : bytes);
  return mount("none", folder.c_str(), "tmpfs", bytes == 0 ? MS_RDONLY : 0, size.c_str()) == 0;
}

bool BecomeUser(unsigned id) {
  return setgroups(0, nullptr) == 0 && setresgid(id, id, id) == 0 && setresuid(id, id, id) == 0;
}

// The clock of a time name space, which only processes that are made after it see: the command is one, and this process
// stays to pass its exit code on.
bool SetTicks(unsigned long milliseconds) {
  timespec now{};
  if (clock_gettime(CLOCK_MONOTONIC, &now) != 0 || unshare(CLONE_NEWTIME) != 0) return false;
  const long seconds = static_cast<long>(milliseconds / 1000) - now.tv_sec - 1;
  const long nanoseconds = static_cast<long>(milliseconds % 1000) * 1'000'000 - now.tv_nsec + 1'000'000'000;
  std::ofstream offsets("/proc/self/timens_offsets");
  offsets << "monotonic " << seconds + nanoseconds / 1'000'000'000 << ' ' << nanoseconds % 1'000'000'000 << std::endl;
  if (!offsets) return false;
  const pid_t child = fork();
  if (child <= 0) return child == 0;
  int status = 0;
  waitpid(child, &status, 0);
  _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
}

bool Apply(const Rule& rule) {
  if (rule.name == "refuse") return Refuse(rule.detail, static_cast<unsigned>(rule.value));
  if (rule.name == "processes") return RefuseProcesses();
  if (rule.name == "tasks") return Limit(RLIMIT_NPROC, rule.value);
  if (rule.name == "files") return Limit(RLIMIT_NOFILE, rule.value);
  if (rule.name == "memory") return Limit(RLIMIT_AS, rule.value);
  if (rule.name == "filesize") return Limit(RLIMIT_FSIZE, rule.value);
  if (rule.name == "mount") return Mount(rule.detail, rule.value);
  if (rule.name == "user") return BecomeUser(static_cast<unsigned>(rule.value));
  if (rule.name == "ticks") return SetTicks(rule.value);
  errno = EINVAL;
  return false;
}

}  // namespace

KESTRUN_CHILD(NarrowsItsSurroundings) {
  std::size_t at = 0;
  for (; at < words.size() && words[at] != "--"; ++at) {
    if (Apply(Parse(words[at]))) continue;
    std::cerr << "not possible: " << words[at] << ": " << std::strerror(errno) << '\n';
    return kNotPossible;
  }
  std::vector<char*> arguments;
  for (std::size_t i = at + 1; i < words.size(); ++i) arguments.push_back(const_cast<char*>(words[i].c_str()));
  arguments.push_back(nullptr);
  execv(arguments[0], arguments.data());
  std::cerr << "not possible: " << arguments[0] << ": " << std::strerror(errno) << '\n';
  return kNotPossible;
}

Words Within(const Words& surroundings, const Words& command) {
  Words words{ProgramPath(""), "--kestrun-child=NarrowsItsSurroundings"};
  words.insert(words.end(), surroundings.begin(), surroundings.end());
  words.push_back("--");
  words.insert(words.end(), command.begin(), command.end());
  return words;
}

}  // namespace kestrun::test
