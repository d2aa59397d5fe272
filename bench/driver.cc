// Runs a command many times and tells how long each run took; the harness of bench/compare, small enough not to show.
//
//   driver run [-n COUNT] [-c AT_ONCE] [-x EXIT_CODE] COMMAND [ARGS...]
//       COUNT runs of the command, AT_ONCE of them in flight at any time, standard input and output at /dev/null.
//       Prints the whole time and then the time of each run, in nanoseconds, one a line. A run whose exit code is not
//       EXIT_CODE (default 0) ends it all with a message.
//   driver emit BYTES
//       Writes so many bytes to standard output: the tool whose output is measured.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string_view>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

long long Nanoseconds(Clock::duration duration) {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(duration).count();
}

class Runner {
 public:
  Runner(char** command, int expectedCode) : command_(command), expectedCode_(expectedCode) {
    posix_spawn_file_actions_init(&actions_);
    posix_spawn_file_actions_addopen(&actions_, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions_, 1, "/dev/null", O_WRONLY, 0);
  }
  ~Runner() { posix_spawn_file_actions_destroy(&actions_); }
  Runner(const Runner&) = delete;
  Runner& operator=(const Runner&) = delete;

  bool RunAll(size_t count, size_t atOnce) {
    times_.reserve(count);
    size_t started = 0;
    while (times_.size() < count) {
      while (started < count && running_.size() < atOnce) {
        if (!StartOne()) return false;
        ++started;
      }
      if (!FinishOne()) return false;
    }
    return true;
  }

  const std::vector<long long>& GetTimes() const { return times_; }

 private:
  bool StartOne() {
    Clock::time_point begin = Clock::now();
    pid_t child = 0;
    if (int error = posix_spawnp(&child, command_[0], &actions_, nullptr, command_, environ); error != 0) {
      std::fprintf(stderr, "driver: cannot start %s: error %d\n", command_[0], error);
      return false;
    }
    running_[child] = begin;
    return true;
  }

  bool FinishOne() {
    int status = 0;
    pid_t child = waitpid(-1, &status, 0);
    auto found = running_.find(child);
    if (found == running_.end()) return child > 0;
    times_.push_back(Nanoseconds(Clock::now() - found->second));
    running_.erase(found);
    if (WIFEXITED(status) && WEXITSTATUS(status) == expectedCode_) return true;
    std::fprintf(stderr, "driver: %s ended with status 0x%x\n", command_[0], static_cast<unsigned>(status));
    return false;
  }

  char** command_;
  int expectedCode_;
  posix_spawn_file_actions_t actions_;
  std::map<pid_t, Clock::time_point> running_;
  std::vector<long long> times_;
};

int Run(int argc, char** argv) {
  size_t count = 1;
  size_t atOnce = 1;
  int expectedCode = 0;
  for (int option; (option = getopt(argc, argv, "+n:c:x:")) != -1;) {
    switch (option) {
      case 'n':
        count = std::strtoul(optarg, nullptr, 10);
        break;
      case 'c':
        atOnce = std::strtoul(optarg, nullptr, 10);
        break;
      case 'x':
        expectedCode = std::atoi(optarg);
        break;
      default:
        return 2;
    }
  }
  if (optind >= argc || atOnce == 0) return 2;
  Runner runner(argv + optind, expectedCode);
  Clock::time_point begin = Clock::now();
  if (!runner.RunAll(count, atOnce)) return 1;
  std::printf("%lld\n", Nanoseconds(Clock::now() - begin));
  for (long long time : runner.GetTimes()) std::printf("%lld\n", time);
  return 0;
}

int Emit(unsigned long long bytes) {
  std::vector<char> block(65536);
  for (size_t i = 0; i < block.size(); ++i) block[i] = i % 64 == 63 ? '\n' : static_cast<char>('0' + i % 64);
  while (bytes > 0) {
    ssize_t written = write(1, block.data(), bytes < block.size() ? bytes : block.size());
    if (written <= 0) return 1;
    bytes -= static_cast<unsigned long long>(written);
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::string_view mode = argc > 1 ? argv[1] : "";
  int result = 2;
  if (mode == "run") result = Run(argc - 1, argv + 1);
  if (mode == "emit" && argc == 3) result = Emit(std::strtoull(argv[2], nullptr, 10));
  if (result == 2) {
    std::fprintf(stderr, "usage: driver run [-n COUNT] [-c AT_ONCE] [-x EXIT_CODE] COMMAND [ARGS...] | emit BYTES\n");
  }
  return result;
}
