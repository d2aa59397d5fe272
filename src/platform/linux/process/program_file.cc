#include "platform/linux/process/program_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include "platform/linux/base/environment.h"
#include "platform/linux/files/file_names.h"
#include "platform/linux/files/file_object.h"

namespace kestrun::platform {
namespace {

// MAX_ARG_STRLEN: one argument or environment entry, its NUL included. Limits of the kernel's exec. They are checked
// beforehand because CreateProcessA has returned when exec fails.
constexpr std::size_t kMaxArgumentSize = 128 * 1024;
// Three quarters of the default stack limit of 8 MiB, beyond which the kernel refuses whatever the limit is.
constexpr std::size_t kMaxTotalSize = 6 * 1024 * 1024;
// Room that the kernel needs on the new stack beside the texts.
constexpr std::size_t kStackReserve = 8 * 1024;

bool IsRegularFile(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

std::string FolderOf(const std::string& path) {
  const std::size_t end = path.rfind('/');
  if (end == std::string::npos) return ".";
  return end == 0 ? "/" : path.substr(0, end);
}

DWORD ErrorOfMissing(const std::string& path, int error) {
  if (error == ENOENT && access(FolderOf(path).c_str(), F_OK) != 0) return ERROR_PATH_NOT_FOUND;
  return Win32ErrorFromErrno(error);
}

// The first line of a script names its interpreter, without which exec would fail with ENOENT for the script itself.
DWORD CheckInterpreter(std::string_view firstLine) {
  const std::size_t start = firstLine.find_first_not_of(" \t", 2);
  if (start == std::string_view::npos) return ERROR_BAD_EXE_FORMAT;
  const std::string interpreter(firstLine.substr(start, firstLine.find_first_of(" \t", start) - start));
  if (access(interpreter.c_str(), X_OK) == 0) return ERROR_SUCCESS;
  return ErrorOfMissing(interpreter, errno);
}

DWORD CheckContent(const std::string& path) {
  const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  // A program may be executable but not readable; exec then decides what it is.
  if (file.get() < 0) return errno == EACCES ? ERROR_SUCCESS : Win32ErrorFromErrno(errno);
  char start[256];
  const ssize_t length = read(file.get(), start, sizeof start);
  const std::string_view text(start, length > 0 ? static_cast<std::size_t>(length) : 0);
  if (text.substr(0, 4) ==
      "\x7f"
      "ELF")
    return ERROR_SUCCESS;
  if (text.substr(0, 2) == "#!") return CheckInterpreter(text.substr(0, text.find('\n')));
  return ERROR_BAD_EXE_FORMAT;
}

}  // namespace

std::string OwnProgramFile() {
  static const std::string name = [] {
    char path[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path);
    if (length > 0) return std::string(path, static_cast<std::size_t>(length));
    // Without /proc neither tools nor helper processes can be found. The callers only see that a name is empty, so the
    // cause is reported here.
    std::fprintf(stderr, "KESTRUN: error: cannot read /proc/self/exe: %s\n", std::strerror(errno));
    return std::string();
  }();
  return name;
}

std::string FindProgram(const std::string& name) {
  const std::string systemName = SystemName(name);
  if (systemName.empty() || systemName.find('/') != std::string::npos) return NameOnDisk(systemName);
  std::string folders = FolderOf(OwnProgramFile()) + ":.";
  std::string path;
  if (FindVariable("PATH", path)) folders += ":" + path;
  for (std::size_t at = 0; at <= folders.size();) {
    const std::size_t end = std::min(folders.find(':', at), folders.size());
    const std::string folder = folders.substr(at, end - at);
    const std::string candidate = NameOnDisk((folder.empty() ? "." : folder) + "/" + systemName);
    if (IsRegularFile(candidate)) return candidate;
    at = end + 1;
  }
  return systemName;
}

DWORD CheckProgram(const std::string& path) {
  struct stat info;
  if (path.empty()) return ERROR_FILE_NOT_FOUND;
  if (stat(path.c_str(), &info) != 0) return ErrorOfMissing(path, errno);
  if (!S_ISREG(info.st_mode)) return ERROR_ACCESS_DENIED;
  if (access(path.c_str(), X_OK) != 0) return Win32ErrorFromErrno(errno);
  return CheckContent(path);
}

DWORD CheckArgumentSize(const std::vector<std::string>& arguments, const std::vector<std::string>& variables) {
  std::size_t total = kStackReserve;
  for (const auto* const list : {&arguments, &variables}) {
    for (const std::string& entry : *list) {
      if (entry.size() + 1 > kMaxArgumentSize) return ERROR_FILENAME_EXCED_RANGE;
      total += entry.size() + 1 + sizeof(char*);
    }
  }
  // sysconf gives a quarter of the stack's limit, which may be larger than what the kernel takes in any case.
  const std::size_t limit = std::min(static_cast<std::size_t>(sysconf(_SC_ARG_MAX)), kMaxTotalSize);
  return total > limit ? ERROR_FILENAME_EXCED_RANGE : ERROR_SUCCESS;
}

}  // namespace kestrun::platform
