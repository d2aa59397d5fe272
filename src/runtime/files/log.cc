// Order of locks: the named mutex, then lock_. The mutex makes a record of one process one piece of the file; lock_
// guards the members against the threads of this process. Members that Write reads before it takes a lock are atomic,
// so a closed log costs two loads.
#include "runtime/files/log.h"

#include <algorithm>
#include <cstdio>
#include <memory>

#include "platform/host.h"
#include "runtime/base/everyone_access.h"
#include "runtime/base/text.h"
#include "runtime/files/common_folder.h"

namespace kestrun {

namespace {

constexpr char kLineEnd[] = "\r\n";
constexpr u32 kSizeLimit = 0x1400000;
constexpr u32 kMutexLimitMs = 1000;
constexpr char kDailyMutex[] = "Global\\dorn_logfile_mutex";

std::time_t SystemDayClock() {
  return std::time(nullptr);
}

// Set by Init and Shutdown, and read by every thread that logs; see Get for the order.
std::atomic<Log*> instance{nullptr};
std::atomic<std::time_t (*)()> dayClock{SystemDayClock};

std::string LevelWord(int level) {
  static constexpr const char* kWords[] = {"Debug", "Info", "Warning", "Error"};
  return level >= 0 && level <= Log::Error ? kWords[level] : "?";
}

std::string ComponentWord(int component) {
  static constexpr const char* kWords[] = {"SERVER", "CLIENT", "STUB", "EVENTS"};
  if (component >= Log::SERVER && component <= Log::EVENTS) return kWords[component - Log::SERVER];
  return "COMPONENT=" + std::to_string(component);
}

// Called with the log's lock held, because localtime answers in memory that all threads share.
std::tm Today() {
  const std::time_t now = dayClock.load()();
  const std::tm* local = std::localtime(&now);
  return local != nullptr ? *local : std::tm{};
}

// The path in lower case. On systems whose file names keep their case, the folder may exist only as it was given; then
// its own name is kept.
Path SingleFilePath(const std::string& path) {
  Path lower(ToLower(path));
  const Path givenFolder = Path(path).GetDirectory();
  if (givenFolder.IsEmpty() || lower.GetDirectory().Exists() || !givenFolder.Exists()) return lower;
  return givenFolder / lower.GetLeaf();
}

}  // namespace

Log* Log::Get() {
  // Acquire pairs with the store in Init: the caller sees the members constructed.
  return instance.load(std::memory_order_acquire);
}

void Log::Init(const std::string& prefix, bool cleanUp) {
  if (Get() != nullptr) return;
  instance = std::unique_ptr<Log>(new Log(kDailyMutex, GetCommonPath() / "Log", prefix, Path(), cleanUp)).release();
}

void Log::InitFile(const std::string& path) {
  if (Get() != nullptr) return;
  const Path file = SingleFilePath(path);
  instance =
      std::unique_ptr<Log>(new Log("Global\\" + file.GetBaseName(), Path(), std::string(), file, false)).release();
}

void Log::Shutdown() {
  const std::unique_ptr<Log> last(instance.exchange(nullptr));
}

Log::Log(const std::string& mutexName, const Path& directory, const std::string& prefix, const Path& singleFile,
         bool cleanUp)
    : directory_(directory), prefix_(prefix), singleFile_(singleFile), cleanUp_(cleanUp), mutexName_(mutexName) {}

void Log::SetDayClock(std::time_t (*clock)()) {
  dayClock = clock != nullptr ? clock : SystemDayClock;
}

void Log::SetDebug(bool debug) {
  debug_ = debug;
}

void Log::SetEnabled(bool enabled) {
  const Lock lock(lock_);
  enabled_ = enabled;
  Open();
  hasFile_ = file_.IsValid();
}

std::string Log::GetRefusal() {
  const Lock lock(lock_);
  return refusal_;
}

bool Log::IsRefused(const std::string& name, const std::string& why) {
  if (!why.empty()) refusal_ = name + ": " + why;
  return !why.empty();
}

void Log::Open() {
  refusal_.clear();
  const bool hasDirectory = IsDaily() ? directory_.CreateDirectories() : singleFile_.CreateParentDirectories();
  if (!hasDirectory && GetLastError() != ERROR_ALREADY_EXISTS) return;
  if (IsDaily()) {
    for (const Path& folder : {directory_.GetDirectory(), directory_}) {
      if (IsRefused(folder.ToString(), platform::WhyOfOthers(folder.ToString()))) return;
    }
    ScanDirectory();
    OpenToday();
  } else {
    OpenFile();
  }
}

void Log::ScanDirectory() {
  knownFiles_.clear();
  WIN32_FIND_DATAA data;
  const HANDLE find = FindFirstFileA((directory_ / (prefix_ + "*.log")).c_str(), &data);
  if (find == INVALID_HANDLE_VALUE) return;
  do {
    knownFiles_.push_back({(directory_ / data.cFileName).ToString(), data.nFileSizeLow});
  } while (FindNextFileA(find, &data));
  FindClose(find);
  std::sort(knownFiles_.begin(), knownFiles_.end());
}

// Opens the file of today or the single one. Gives the name of the file that it opened or failed to open.
std::string Log::OpenFile() {
  const std::tm day = Today();
  std::string name = singleFile_.ToString();
  if (IsDaily()) {
    char date[64];
    std::snprintf(date, sizeof date, "%04d-%02d-%02d.log", day.tm_year + 1900, day.tm_mon + 1, day.tm_mday);
    name = (directory_ / (prefix_ + date)).ToString();
  }
  const EveryoneAccess access;
  file_.Reset(CreateFileA(name.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, access.GetAttributes(),
                          OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL | FILE_FLAG_WRITE_THROUGH | platform::kRefuseFilesOfOthers,
                          nullptr));
  if (!file_ && !IsRefused(name, platform::WhyNoFile(name))) IsRefused(name, platform::WhyOfOthers(name));
  if (file_) {
    SetFilePointer(file_.Get(), 0, nullptr, FILE_END);
    currentDay_ = day.tm_yday;
  }
  return name;
}

void Log::OpenToday() {
  knownFiles_.push_back({OpenFile(), 0});
}

void Log::Write(int level, int component, const std::string& message, const Fields& fields) {
  if (!IsOpen() || (level == Debug && !debug_)) return;
  SYSTEMTIME now;
  GetLocalTime(&now);
  std::string record = LevelWord(level) + ": [" + ComponentWord(component) + "] " + message + kLineEnd;
  record += " time:" + FormatTime(now) + kLineEnd;
  for (const auto& [key, value] : fields) record.append(" ").append(key).append(":").append(value).append(kLineEnd);
  Mutex* const mutex = GetMutex();
  // A process that was stopped while it held the mutex must not stop the others: after a second the record is lost.
  if (mutex == nullptr || !mutex->Lock(kMutexLimitMs)) return;
  Append(record);
  mutex->Unlock();
}

Mutex* Log::GetMutex() {
  const Lock lock(lock_);
  try {
    if (!mutex_) mutex_ = std::make_unique<Mutex>(mutexName_.c_str(), EveryoneAccess().GetAttributes());
  } catch (const SyncException&) {
    // The mutex can't be made now; the next record tries again.
  }
  return mutex_.get();
}

void Log::Append(const std::string& record) {
  const Lock lock(lock_);
  if (IsDaily()) Rotate();
  if (!file_) return;
  SetFilePointer(file_.Get(), 0, nullptr, FILE_END);
  DWORD written = 0;
  // Other processes have appended meanwhile, so the position was moved to the end first; the mutex keeps it there.
  const bool isWritten = WriteFile(file_.Get(), record.data(), static_cast<DWORD>(record.size()), &written, nullptr);
  if (isWritten && written == record.size() && !knownFiles_.empty()) knownFiles_.back().size += written;
}

void Log::Rotate() {
  if (Today().tm_yday != currentDay_) {
    file_.Reset();
    OpenToday();
    hasFile_ = file_.IsValid();
  }
  // The sizes are those of the last scan plus what this process has written; other processes' records are counted at
  // the next start.
  u64 total = 0;
  for (const LogFileInfo& file : knownFiles_) total += file.size;
  // One file for each record, so that no record waits for the deletion of many.
  if (cleanUp_ && total > kSizeLimit && knownFiles_.size() > 1) {
    DeleteFileA(knownFiles_.front().name.c_str());
    knownFiles_.erase(knownFiles_.begin());
  }
}

std::string Log::FormatTime(const SYSTEMTIME& time) {
  char text[64];
  std::snprintf(text, sizeof text, "%04u-%02u-%02u %02u:%02u:%02u.%03u", time.wYear, time.wMonth, time.wDay, time.wHour,
                time.wMinute, time.wSecond, time.wMilliseconds);
  return text;
}

std::string Log::FormatTime(u64 milliseconds) {
  constexpr u64 kFileTimePerMs = 10000;
  const u64 ticks = milliseconds * kFileTimePerMs;
  const FILETIME fileTime{static_cast<DWORD>(ticks & 0xFFFFFFFF), static_cast<DWORD>(ticks >> 32)};
  SYSTEMTIME time{};
  FileTimeToSystemTime(&fileTime, &time);
  return FormatTime(time);
}

bool IsLogOpen() {
  const Log* const log = Log::Get();
  return log != nullptr && log->IsOpen();
}

bool IsDebugLogOpen() {
  const Log* const log = Log::Get();
  return log != nullptr && log->TakesDebug();
}

void WriteLog(int level, int component, const std::string& message, const Log::Fields& fields) {
  if (Log* const log = Log::Get()) log->Write(level, component, message, fields);
}

}  // namespace kestrun
