#include "dorn/status.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "dorn/build_record.h"
#include "dorn/exit_codes.h"
#include "dorn/report.h"
#include "dorn/summary.h"
#include "platform/terminal.h"
#include "platform/win32.h"
#include "protocol/dorn_session.h"
#include "protocol/job_label.h"
#include "runtime/base/environment.h"
#include "runtime/base/handle.h"
#include "runtime/files/mapped_file.h"

namespace kestrun::dorn {

namespace {

constexpr u32 kAnswerMs = 5000;
constexpr u32 kWatchMs = 500;
constexpr std::size_t kLinesWithoutTerminal = 40;
constexpr std::size_t kColumnsWithoutTerminal = 160;

// False if no dorn of this user has made the region that dorns share. Throws PLV::Exception if that can't be told.
bool HasSession() {
  const UniqueHandle region(OpenFileMappingA(FILE_MAP_READ, FALSE, kDornSessionName));
  const DWORD error = region ? ERROR_SUCCESS : GetLastError();
  if (!region && error != ERROR_FILE_NOT_FOUND) throw PLV::Exception(error, "cannot look for a build");
  return region.IsValid();
}

// The id of the master that dorns share, or nothing if it does not live. The record outlives a master for as long as
// some dorn has it open, so the event of that id tells whether the master lives.
std::string FindSharedMaster() {
  if (!HasSession()) return "";
  try {
    MappedFile region(kDornSessionName, 0, false);
    const rc_ptr<MappedFile::ViewImpl> view = region.CreateView(0, MappedFile::kWholeSize, true);
    if (view->GetSize() < sizeof(DornSession)) return "";
    const auto* const session = static_cast<const DornSession*>(view->GetData());
    const std::string id(session->id, strnlen(session->id, DornSession::kIdSize));
    // Any process of the user may have written the record.
    if (!IsUsableId(id)) return "";
    const UniqueHandle alive(OpenEventA(SYNCHRONIZE, FALSE, GetDornMasterName(id).c_str()));
    return alive ? id : "";
  } catch (const MappedFileException&) {
    return "";
  }
}

// A master that was started by hand is in no record; the option or the environment names it.
std::string FindMaster(const Options& options) {
  if (!options.id.empty()) return options.id;
  std::string id = FindSharedMaster();
  if (id.empty()) GetEnvironmentValue("KESTRUN_ID", id);
  return id;
}

std::string AgeOf(const JournalState& state, std::int64_t since) {
  return FormatSpan(std::max(state.nowUs - since, std::int64_t{0}));
}

// More jobs may run than there are slots, because jobs share a slot with those below them (master/job_slots.h).
std::string Headline(const JournalState& state) {
  std::string line = "build runs for " + AgeOf(state, state.startedUs) + ": " + std::to_string(state.done) + " done, " +
                     std::to_string(state.running) + " running, " + std::to_string(state.waiting) + " waiting, " +
                     std::to_string(state.failed) + " failed";
  if (state.unknown > 0) line += ", " + std::to_string(state.unknown) + " of unknown outcome";
  return line + "; " + std::to_string(std::min<u64>(state.running, state.slots)) + " of " +
         std::to_string(state.slots) + " slots busy";
}

std::string LineOf(const JournalState& state, const JobRecord& job) {
  const bool isRunning = job.outcome == JobOutcome::kRunning;
  std::string age = AgeOf(state, isRunning ? job.startedUs : job.queuedUs);
  age.insert(0, age.size() < 11 ? 11 - age.size() : 0, ' ');
  return age + (isRunning ? "  " : "  waits  ") + GetLabel(job.text);
}

void WriteJob(const JournalState& state, const JobRecord& job, JsonWriter& json) {
  const bool isRunning = job.outcome == JobOutcome::kRunning;
  json.BeginObject();
  WriteJobKeys(job, json);
  json.Key("file").String(GetFileOfJob(job.text));
  json.Key("command").String(job.text.command);
  json.Key("folder").String(job.text.folder);
  json.Key("queued_age_us").Int(std::max(state.nowUs - job.queuedUs, std::int64_t{0}));
  if (isRunning) {
    json.Key("running_age_us").Int(std::max(state.nowUs - job.startedUs, std::int64_t{0}));
    json.Key("slot").Known(job.slot);
  }
  json.EndObject();
}

void WriteState(const JournalState& state, const std::string& id, JsonWriter& json) {
  json.Key("id").String(id);
  json.Key("master_pid").Int(state.masterProcess);
  json.Key("started_unix_us").Int(static_cast<std::int64_t>(state.startedUnixUs));
  json.Key("age_us").Int(state.nowUs - state.startedUs);
  json.Key("slots").Int(state.slots);
  json.Key("slots_busy").Int(static_cast<std::int64_t>(std::min<u64>(state.running, state.slots)));
  json.Key("jobs_done").Int(static_cast<std::int64_t>(state.done));
  json.Key("jobs_failed").Int(static_cast<std::int64_t>(state.failed));
  json.Key("jobs_unknown").Int(static_cast<std::int64_t>(state.unknown));
  json.Key("jobs_running").Int(static_cast<std::int64_t>(state.running));
  json.Key("jobs_waiting").Int(static_cast<std::int64_t>(state.waiting));
}

void WriteJobs(const char* key, const JournalNews& news, JobOutcome outcome, JsonWriter& json) {
  json.Key(key).BeginArray();
  for (const JobRecord& job : news.jobs) {
    if (job.outcome == outcome) WriteJob(news.state, job, json);
  }
  json.EndArray();
}

bool AskForStatus(JournalObserver& master, JournalNews& news) {
  return master.Ask(OBSERVE_SNAPSHOT) && master.Receive(kAnswerMs, news) == JournalObserver::Outcome::kNews;
}

int TellNoAnswer() {
  PrintError("a build runs, but its master does not answer");
  return kExitFailure;
}

int TellNoBuild(const Options& options) {
  if (options.isJson) {
    std::fputs(GetStatusJson(nullptr, "").c_str(), stdout);
  } else {
    std::puts("no build runs");
  }
  return kExitNoBuild;
}

void Show(const Options& options, const std::string& id, const JournalNews& news) {
  const platform::TerminalSize size = platform::GetTerminalSize(stdout);
  std::string text;
  if (options.isJson) {
    text = GetStatusJson(&news, id);
  } else if (size.columns == 0) {
    text = GetStatusText(news, kLinesWithoutTerminal, kColumnsWithoutTerminal);
  } else {
    // The last line is for the cursor: a line end in it would scroll the first line away.
    text = GetStatusText(news, size.lines - 1, size.columns);
    // Each line is overwritten, and what is left of the screen is cleared, so that nothing flickers.
    if (options.isWatch) {
      for (std::size_t at = text.find('\n'); at != std::string::npos; at = text.find('\n', at + 4)) {
        text.insert(at, "\x1b[K");
      }
      text = "\x1b[H" + text + "\x1b[J";
    }
  }
  std::fputs(text.c_str(), stdout);
  std::fflush(stdout);
}

bool HasReader() {
  return std::ferror(stdout) == 0;
}

// Shows the state again and again, until the build ends or the output has lost its reader.
int Watch(const Options& options, const std::string& id, JournalObserver& master, JournalNews& news) {
  if (!options.isJson && platform::EnableTerminalCodes(stdout)) std::fputs("\x1b[2J", stdout);
  do {
    Show(options, id, news);
    Sleep(kWatchMs);
  } while (HasReader() && AskForStatus(master, news));
  if (!options.isJson) std::puts("the build has ended");
  return 0;
}

}  // namespace

std::string GetStatusText(const JournalNews& news, std::size_t lines, std::size_t columns) {
  std::string text = FitLine(Headline(news.state), columns) + "\n";
  std::size_t used = 1;
  for (const JobRecord& job : news.jobs) {
    // The last line tells how many more there are; if it is only one, that one is shown instead.
    if (used + 1 >= lines && used - 1 < news.state.running + news.state.waiting - 1) break;
    text += FitLine(LineOf(news.state, job), columns) + "\n";
    ++used;
  }
  const u64 all = news.state.running + news.state.waiting;
  if (all > used - 1) text += "  and " + std::to_string(all - (used - 1)) + " more\n";
  return text;
}

std::string GetStatusJson(const JournalNews* news, const std::string& id) {
  JsonWriter json;
  json.BeginObject().Key("kestrun_status").Int(1).Key("build_runs").Bool(news != nullptr);
  if (news != nullptr) {
    WriteState(news->state, id, json);
    WriteJobs("running", *news, JobOutcome::kRunning, json);
    WriteJobs("waiting", *news, JobOutcome::kWaiting, json);
  }
  return json.EndObject().TakeText() + "\n";
}

int RunStatus(const Options& options) {
  const std::string id = FindMaster(options);
  const std::unique_ptr<JournalObserver> master = id.empty() ? nullptr : JournalObserver::Connect(id, kAnswerMs);
  // The shared master is there, but it did not accept the connection in time: it is stopped, or in a debugger.
  if (!master && !id.empty() && FindSharedMaster() == id) return TellNoAnswer();
  if (!master) return TellNoBuild(options);
  JournalNews news;
  if (!AskForStatus(*master, news)) return TellNoAnswer();
  if (!news.refusal.empty()) {
    PrintError(news.refusal);
    return kExitFailure;
  }
  if (options.isWatch) return Watch(options, id, *master, news);
  Show(options, id, news);
  return 0;
}

}  // namespace kestrun::dorn
