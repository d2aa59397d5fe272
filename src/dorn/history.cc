#include "dorn/history.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "dorn/exit_codes.h"
#include "dorn/report.h"
#include "dorn/settings.h"
#include "dorn/settings_file.h"
#include "platform/host.h"
#include "runtime/files/common_folder.h"
#include "runtime/files/ini_file.h"
#include "runtime/files/text_file.h"
#include "runtime/threads/sync.h"

namespace kestrun::dorn {

namespace {

constexpr const char* kLockName = "dorn_history";
constexpr std::size_t kMostBytes = 4 << 20;

Path GetHistoryPath() {
  return GetCommonPath() / "Builds.jsonl";
}

// Appends the line to the file. If a full disk has left half a line there, that one is ended first. Empty, or the
// reason.
std::string Append(const Path& path, const std::string& line) {
  const std::string name = path.ToString();
  const std::string refusal = platform::WhyNoFile(name);
  // Refuses what is no regular file: a FIFO under that name could make dorn wait without end.
  if (!refusal.empty()) return refusal;
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(platform::OpenStdio(name, "a+b"), &std::fclose);
  if (!file) return std::strerror(errno);
  // The seek fails for an empty file, which needs no line end.
  const bool endsInLine = std::fseek(file.get(), -1, SEEK_END) != 0 || std::fgetc(file.get()) == '\n';
  // A stream that was read from must be positioned before it is written to, also in append mode.
  std::fseek(file.get(), 0, SEEK_END);
  const std::string text = endsInLine ? line : "\n" + line;
  const bool isWritten = std::fwrite(text.data(), 1, text.size(), file.get()) == text.size();
  return isWritten && std::fflush(file.get()) == 0 ? "" : std::strerror(errno);
}

// Once the file has more than kMostBytes, keeps about the newer half of that.
void Shorten(const Path& path) {
  std::string text;
  std::string error;
  if (!ReadTextFile(path, &text, nullptr, &error) || text.size() <= kMostBytes) return;
  const std::size_t cut = text.find('\n', text.size() - kMostBytes / 2);
  if (cut != std::string::npos) WriteWholeFile(path, text.substr(cut + 1), false);
}

}  // namespace

bool IsHistoryWanted() {
  IniFile settings;
  settings.Load(GetSettingsPath());
  return settings.GetBool("Extensions/BuildHistory", false);
}

std::string GetHistoryLine(const BuildRecord& record) {
  const BuildFigures figures = GetFigures(record);
  JsonWriter json;
  json.BeginObject().Key("kestrun_history").Int(1);
  WriteBuildKeys(record, json);
  json.Key("jobs_done").Int(static_cast<std::int64_t>(figures.jobs));
  json.Key("jobs_failed").Int(static_cast<std::int64_t>(figures.failures));
  json.Key("jobs_unknown").Int(static_cast<std::int64_t>(figures.unknown));
  json.Key("jobs_dropped").Int(static_cast<std::int64_t>(record.jobsDropped));
  json.Key("cpu_us").Int(figures.cpuUs);
  return json.EndObject().TakeText() + "\n";
}

void AddToHistory(const BuildRecord& record) {
  const Path path = GetHistoryPath();
  // Without it a line that another dorn appends while this one shortens the file would be lost with the old file.
  const NamedMutexLock lock(kLockName);
  const std::string error = Append(path, GetHistoryLine(record));
  if (!error.empty()) {
    PrintWarning("cannot write " + GetFullPath(path).ToString() + ": " + error);
    return;
  }
  Shorten(path);
}

int ListHistory() {
  const Path path = GetHistoryPath();
  std::string text;
  std::string error;
  if (!path.Exists()) {
    Print(IsHistoryWanted()
              ? "no build has been recorded yet"
              : "no build has been recorded; Extensions/BuildHistory=bool:true in the settings turns it on");
    return 0;
  }
  if (!ReadTextFile(path, &text, nullptr, &error)) {
    PrintError("cannot read " + GetFullPath(path).ToString() + ": " + error);
    return kExitFailure;
  }
  std::fwrite(text.data(), 1, text.size(), stdout);
  return 0;
}

}  // namespace kestrun::dorn
