// Finding and running a tool as the caller's shell would, and what the system tells about trees of processes.
#include "platform/tool_process.h"

#include <algorithm>
#include <cstdlib>
#include <map>

#include "platform/win32.h"

namespace kestrun::platform {

namespace {

std::vector<std::string> SplitList(const char* variable, const std::string& otherwise) {
  const char* const value = std::getenv(variable);
  const std::string text = value != nullptr ? value : otherwise;
  std::vector<std::string> elements;
  for (std::size_t begin = 0; begin <= text.size();) {
    const std::size_t end = std::min(text.find(';', begin), text.size());
    if (end > begin) elements.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  return elements;
}

bool IsFile(const std::string& name) {
  const DWORD attributes = GetFileAttributesA(name.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0;
}

std::string EndingOf(const std::string& name) {
  const std::size_t dot = name.find_last_of("./\\");
  return dot != std::string::npos && name[dot] == '.' ? name.substr(dot) : "";
}

// A name with an ending means the file of that very name first; then, as any name, the file with one of the endings in
// PATHEXT.
bool FindWithEnding(const std::string& base, std::string& file) {
  std::vector<std::string> endings = SplitList("PATHEXT", ".COM;.EXE;.BAT;.CMD");
  if (!EndingOf(base).empty()) endings.insert(endings.begin(), "");
  for (const std::string& ending : endings) {
    file = base + ending;
    if (IsFile(file)) return true;
  }
  return false;
}

bool FindFile(const std::string& name, std::string& file) {
  if (name.empty()) return false;
  if (name.find_first_of("/\\:") != std::string::npos) return FindWithEnding(name, file);
  std::vector<std::string> folders = SplitList("PATH", "");
  // The shell looks in the current folder before PATH.
  folders.insert(folders.begin(), ".");
  return std::any_of(folders.begin(), folders.end(),
                     [&](const std::string& folder) { return FindWithEnding(folder + "\\" + name, file); });
}

bool IsBatchFile(const std::string& file) {
  const std::string ending = EndingOf(file);
  return _stricmp(ending.c_str(), ".bat") == 0 || _stricmp(ending.c_str(), ".cmd") == 0;
}

}  // namespace

const bool kCanBecomeProgram = false;

RunFailure BecomeProgram(const std::vector<std::string>&) {
  return {kExitNotRunnable, "this system can't replace a process"};
}

bool FindProgram(const std::string& name, const std::string& argumentText, ProgramCommand& command,
                 RunFailure& failure) {
  std::string file;
  if (!FindFile(name, file)) {
    failure = {kExitNotFound, "not found"};
    return false;
  }
  char full[MAX_PATH] = {};
  const DWORD length = GetFullPathNameA(file.c_str(), MAX_PATH, full, nullptr);
  if (length > 0 && length < MAX_PATH) file = full;
  command.application = file;
  command.commandLine = "\"" + file + "\" " + argumentText;
  if (!IsBatchFile(file)) return true;
  // A batch file is run by the shell. /s makes it strip the outer pair of quotes and take the rest as it is; /d leaves
  // out the user's start-up commands.
  const char* const shell = std::getenv("COMSPEC");
  command.application = shell != nullptr ? shell : "cmd.exe";
  command.commandLine = "\"" + command.application + "\" /d /s /c \"" + command.commandLine + "\"";
  return true;
}

namespace {

// Every process with its parent.
std::map<DWORD, DWORD> ListParents() {
  std::map<DWORD, DWORD> parents;
  const HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
  if (snapshot == INVALID_HANDLE_VALUE) return parents;
  PROCESSENTRY32 entry = {};
  entry.dwSize = sizeof entry;
  for (BOOL isThere = Process32First(snapshot, &entry); isThere; isThere = Process32Next(snapshot, &entry)) {
    parents[entry.th32ProcessID] = entry.th32ParentProcessID;
  }
  CloseHandle(snapshot);
  return parents;
}

std::uint64_t ToMicroseconds(const FILETIME& time) {
  return ((std::uint64_t{time.dwHighDateTime} << 32) | time.dwLowDateTime) / 10;
}

std::uint64_t ProcessorTime(DWORD processId) {
  const HANDLE process = OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, processId);
  if (process == nullptr) return 0;
  FILETIME creation, exit, kernel, user;
  const bool isKnown = GetProcessTimes(process, &creation, &exit, &kernel, &user) != FALSE;
  CloseHandle(process);
  return isKnown ? ToMicroseconds(kernel) + ToMicroseconds(user) : 0;
}

// Process ids are used again, so the chain of parents may be a circle.
bool IsBelow(const std::map<DWORD, DWORD>& parents, DWORD processId, DWORD root) {
  constexpr int kMostLevels = 64;
  for (int level = 0; level < kMostLevels; ++level) {
    if (processId == root) return true;
    const auto parent = parents.find(processId);
    if (parent == parents.end() || parent->second == 0) return false;
    processId = parent->second;
  }
  return false;
}

}  // namespace

std::uint32_t ParentProcess(std::uint32_t processId) {
  const std::map<DWORD, DWORD> parents = ListParents();
  const auto parent = parents.find(processId);
  return parent != parents.end() ? parent->second : 0;
}

std::uint64_t ProcessorTimeOfTree(std::uint32_t processId) {
  const std::map<DWORD, DWORD> parents = ListParents();
  std::uint64_t sum = 0;
  for (const auto& [child, parent] : parents) {
    if (IsBelow(parents, child, processId)) sum += ProcessorTime(child);
  }
  return sum;
}

ProcessUsage UsageOfTree(std::uint32_t) {
  return {};
}

std::uint64_t PipeNumber(int) {
  return 0;
}

void OpenClosedStandardStreams() {}

}  // namespace kestrun::platform
