#include "runtime/system_utilities.h"

#include <atomic>
#include <cstdio>
#include <optional>
#include <vector>

#include "platform/host.h"
#include "platform/win32.h"
#include "runtime/environment.h"
#include "runtime/exception.h"
#include "runtime/executable_search.h"
#include "runtime/handle.h"
#include "runtime/mapped_file.h"
#include "runtime/version.h"

namespace kestrun {

Path GetCommonPath() {
  std::string common;
  if (!GetEnvironmentValue("RV_COMMON_PATH", common)) common = platform::DefaultCommonPath();
  return Path(common) / "DORN\\";
}

std::string GetVersionString() {
  const Path program = GetProgramPath();
  VersionNumber version;
  if (!GetFileVersion(program.ToString(), version)) return "<error>";
  return program.GetBaseName() + " (release) " + version.ToString() + " " + program.GetQuoted('\\');
}

std::string CreateTempFile(const std::string& suffix) {
  static std::atomic<u32> counter{0};
  constexpr int kAttempts = 100;
  const std::string ending = std::to_string(++counter) + suffix;
  const Path directory = GetTempDirectory();
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    const Path candidate = directory / ("plovr" + std::to_string(now.dwLowDateTime)).append(ending);
    const UniqueFile file(
        CreateFileA(candidate.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, FILE_ATTRIBUTE_TEMPORARY, nullptr));
    if (file) return candidate.ToString();
    Sleep(10);  // so that the time in the name changes
  }
  throw PLV::Exception(ERROR_ALREADY_EXISTS, "Cannot create unique temp file name!");
}

Path GetTempDirectory() {
  char buffer[MAX_PATH] = {};
  const DWORD length = GetTempPathA(MAX_PATH, buffer);
  if (length == 0 || length >= MAX_PATH) throw PLV::Exception(GetLastError(), "Could not get temp path!");
  return Path(buffer);
}

bool DeleteTree(const Path& directory) {
  bool everything = true;
  std::vector<Path> entries;
  ListDirectory(directory, "*.*", entries);
  for (const Path& entry : entries) {
    const DWORD attributes = GetFileAttributesA(entry.c_str());
    const bool isDirectory =
        attributes != INVALID_FILE_ATTRIBUTES && (attributes & static_cast<DWORD>(FILE_ATTRIBUTE_DIRECTORY)) != 0;
    if (!isDirectory) {
      everything = DeleteFileA(entry.c_str()) && everything;
    } else if ((attributes & static_cast<DWORD>(FILE_ATTRIBUTE_REPARSE_POINT)) != 0) {
      // A link to a folder goes itself; what it leads to is not ours.
      everything = RemoveDirectoryA(entry.c_str()) && everything;
    } else {
      everything = DeleteTree(entry) && everything;
    }
  }
  return RemoveDirectoryA(directory.c_str()) && everything;
}

std::string ExpandEnvironment(const std::string& text) {
  char buffer[4096];
  const DWORD length = ExpandEnvironmentStringsA(text.c_str(), buffer, sizeof buffer);
  return length == 0 || length > sizeof buffer ? text : std::string(buffer);
}

bool ReadTextFile(const Path& path, std::string* text, u32* size, std::string* error) {
  std::optional<MappedFile> file;
  try {
    file.emplace(path, MappedFile::kReadOnly);
  } catch (const MappedFileException&) {
    *error = "Could not open mapped file";
    return false;
  }
  try {
    const u32 length = file->GetSize();
    if (size != nullptr) *size = length;
    if (text == nullptr) return true;
    text->clear();
    if (length > 0) {
      const rc_ptr<MappedFile::ViewImpl> view = file->CreateView(0, MappedFile::kWholeSize, false);
      text->assign(static_cast<const char*>(view->GetData()), length);
    }
    return true;
  } catch (const MappedFileException& exception) {
    *error = "Err=" + std::to_string(exception.GetCode()) + ", msg=" + exception.what();
    return false;
  }
}

void AssertFailed(const std::string& expression, const std::string& file, int line) {
  const std::string text = "ASSERTION FAILED(" + expression + ") at " + file + ":" + std::to_string(line) + "\n";
  std::fputs(text.c_str(), stderr);
}

}  // namespace kestrun
