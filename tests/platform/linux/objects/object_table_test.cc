// Named objects under processes that come, go and are killed at random: what each process saw is written down with the
// time, and compared afterwards with what each process can have held.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <fstream>
#include <map>
#include <random>
#include <vector>

#include "../../scoped_handle.h"
#include "platform/win32.h"
#include "support/child.h"
#include "support/names.h"

namespace kestrun::test {
namespace {

std::int64_t NowNs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * 1'000'000'000 + now.tv_nsec;
}

enum Step : std::uint32_t { kBeginGet, kCreated, kOpened, kMissing, kBeginClose, kClosed };

// One line of a process's diary; written whole, so that a kill leaves none half written.
struct Entry {
  std::int64_t time;
  std::uint32_t name;
  Step step;
};

class Diary {
 public:
  explicit Diary(const std::string& path) : fd_(open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600)) {}
  ~Diary() { close(fd_); }
  bool Write(std::uint32_t name, Step step) {
    const Entry entry{NowNs(), name, step};
    return write(fd_, &entry, sizeof entry) == sizeof entry;
  }

 private:
  int fd_;
};

constexpr std::uint32_t kNames = 3;

// Gets and closes objects at random until it is killed, never holding two of one name.
KESTRUN_CHILD(ComesAndGoes) {
  Diary diary(words[0]);
  std::mt19937 random(static_cast<unsigned>(std::stoul(words[2])));
  ScopedHandle held[kNames];
  for (int steps = 1;; ++steps) {
    if (steps % 50 == 0) Say("alive");
    const auto name = static_cast<std::uint32_t>(random() % kNames);
    const std::string full = words[1] + std::to_string(name);
    if (held[name]) {
      diary.Write(name, kBeginClose);
      held[name].Close();
      diary.Write(name, kClosed);
      continue;
    }
    diary.Write(name, kBeginGet);
    if (random() % 2 == 0) {
      held[name] = OpenEventA(EVENT_ALL_ACCESS, FALSE, full.c_str());
      if (!held[name] && GetLastError() != ERROR_FILE_NOT_FOUND) return 1;
      diary.Write(name, held[name] ? kOpened : kMissing);
    } else {
      held[name] = CreateEventA(nullptr, FALSE, FALSE, full.c_str());
      const DWORD error = GetLastError();
      if (!held[name]) return 2;
      diary.Write(name, error == ERROR_ALREADY_EXISTS ? kOpened : kCreated);
    }
  }
}

// What one process did with an object. From `begin` to `closed` it may have held it, from `got` to `closing` it did.
struct Life {
  std::size_t process;
  std::int64_t begin, got, closing, closed;
};

// The holds of each process, which follow one another, and the attempts of all by their results.
struct Story {
  std::map<std::size_t, std::vector<Life>> holds;
  std::map<Step, std::vector<Life>> attempts;
};

// Adds what one process did; `killed` is when it was told to die, and `gone` when it was known to be dead.
void Read(const std::string& path, std::size_t process, std::int64_t killed, std::int64_t gone,
          Story (&stories)[kNames]) {
  std::ifstream file(path, std::ios::binary);
  Entry entry{};
  while (file.read(reinterpret_cast<char*>(&entry), sizeof entry)) {
    std::vector<Life>& holds = stories[entry.name].holds[process];
    if (entry.step == kBeginGet) {
      holds.push_back({process, entry.time, INT64_MAX, killed, gone});
    } else if (entry.step == kBeginClose) {
      holds.back().closing = entry.time;
    } else if (entry.step == kClosed) {
      holds.back().closed = entry.time;
    } else {
      holds.back().got = entry.time;
      stories[entry.name].attempts[entry.step].push_back(holds.back());
      if (entry.step == kMissing) holds.pop_back();
    }
  }
}

// Whether another process held the object during the whole attempt (SURELY), or may have at some moment of it. Of each
// process only the last hold that began early enough can have lasted long enough.
bool IsThere(const Story& story, const Life& attempt, bool surely) {
  for (const auto& [process, holds] : story.holds) {
    if (process == attempt.process) continue;
    const auto late = std::partition_point(holds.begin(), holds.end(), [&](const Life& hold) {
      return surely ? hold.got < attempt.begin : hold.begin <= attempt.got;
    });
    if (late == holds.begin()) continue;
    const Life& last = *std::prev(late);
    if (surely ? attempt.got < last.closing : attempt.begin <= last.closed) return true;
  }
  return false;
}

TEST(ObjectTable, AnObjectExistsExactlyWhileAProcessHoldsIt) {
  constexpr std::size_t kAlive = 4;
  constexpr std::size_t kProcesses = 30;
  TempFolder folder;
  const std::string name = UniqueName();
  std::mt19937 random(1);
  struct Running {
    Child child;
    std::size_t number;
  };
  std::vector<Running> running;
  Story stories[kNames];
  const auto diary = [&](std::size_t number) { return folder.File(std::to_string(number)); };
  for (std::size_t started = 0; started < kProcesses || !running.empty();) {
    if (started < kProcesses && running.size() < kAlive) {
      const std::string number = std::to_string(started);
      running.push_back({Child::Self("ComesAndGoes", {diary(started), name, number}), started});
      ++started;
      continue;
    }
    const std::size_t index = random() % running.size();
    Running victim = std::move(running[index]);
    running.erase(running.begin() + static_cast<std::ptrdiff_t>(index));
    for (std::size_t lines = 1 + random() % 5; lines > 0; --lines) EXPECT_EQ(victim.child.ReadLine(), "alive");
    const std::int64_t killed = NowNs();
    victim.child.Kill();
    EXPECT_EQ(victim.child.Wait(), 128 + 9);
    Read(diary(victim.number), victim.number, killed, NowNs(), stories);
  }
  for (const Step result : {kCreated, kOpened, kMissing}) {
    std::size_t seen = 0, wrong = 0;
    for (Story& story : stories) {
      for (const Life& attempt : story.attempts[result]) {
        ++seen;
        if (IsThere(story, attempt, result != kOpened) != (result == kOpened)) ++wrong;
      }
    }
    EXPECT_EQ(wrong, 0u) << result;
    EXPECT_GT(seen, 100u) << result;
  }
  for (std::uint32_t i = 0; i < kNames; ++i) {
    EXPECT_FALSE(OpenEventA(EVENT_ALL_ACCESS, FALSE, (name + std::to_string(i)).c_str()));
  }
}

}  // namespace
}  // namespace kestrun::test
