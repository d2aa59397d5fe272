#include "runtime/process/process_list.h"

#include <functional>

#include "platform/win32.h"
#include "runtime/base/handle.h"
#include "runtime/files/path.h"

namespace kestrun {

namespace {

constexpr DWORD kMaxProcesses = 1024;
constexpr char kProgramEnding[] = ".exe";

bool BearsName(HANDLE process, const std::string& name) {
  char buffer[MAX_PATH] = "<unknown>";
  if (GetModuleBaseNameA(process, nullptr, buffer, MAX_PATH) == 0) return false;
  const Path file(buffer);
  return name == file.GetBaseName() || name == file.GetLeaf() || name == file.GetLeaf() + kProgramEnding;
}

// Calls `visit` with the handle and id of each process of that name, until it gives false.
void ForEachProcess(const std::string& name, const std::function<bool(UniqueHandle, u32)>& visit) {
  DWORD ids[kMaxProcesses];
  DWORD bytes = 0;
  // A list that does not fit is cut off without an error; see the limit in the header.
  if (!EnumProcesses(ids, sizeof ids, &bytes)) return;
  for (DWORD i = 0; i < bytes / sizeof ids[0]; ++i) {
    UniqueHandle process(OpenProcess(SYNCHRONIZE | PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE, ids[i]));
    if (process && BearsName(process.Get(), name) && !visit(std::move(process), ids[i])) return;
  }
}

}  // namespace

int CountProcesses(const std::string& name) {
  int count = 0;
  ForEachProcess(name, [&](UniqueHandle, u32) {
    ++count;
    return true;
  });
  return count;
}

rc_ptr<Process> FindProcess(const std::string& name) {
  rc_ptr<Process> found;
  ForEachProcess(name, [&](UniqueHandle process, u32 id) {
    found = new Process(process.Release(), id);
    return false;
  });
  return found;
}

}  // namespace kestrun
