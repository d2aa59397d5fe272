// The least client and broker that do the job at all, as the mark that everything else is measured against: a tool's
// arguments, directory and environment go over a Unix socket, the broker spawns it with a pipe for each output, and
// what it writes comes back, with its exit code at the end. No queue, no job object, no limit, no log, no recovery.
//
//   floor serve SOCKET [WORKERS]          the broker; each worker thread runs one tool at a time
//   floor run SOCKET TOOL [ARGS...]       the client
//   floor batch COUNT AT_ONCE TOOL [ARGS...]   spawns with two pipes and nothing else, no socket
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace {

constexpr int kBroken = 125;

class Descriptor {
 public:
  explicit Descriptor(int fd = -1) : fd_(fd) {}
  Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~Descriptor() { Close(); }
  int Get() const { return fd_; }
  void Close() {
    if (fd_ >= 0) close(std::exchange(fd_, -1));
  }

 private:
  int fd_;
};

bool WriteAll(int fd, const void* data, size_t size) {
  const char* from = static_cast<const char*>(data);
  while (size > 0) {
    ssize_t written = write(fd, from, size);
    if (written <= 0) return false;
    from += written;
    size -= static_cast<size_t>(written);
  }
  return true;
}

bool ReadAll(int fd, void* data, size_t size) {
  char* to = static_cast<char*>(data);
  while (size > 0) {
    ssize_t got = read(fd, to, size);
    if (got <= 0) return false;
    to += got;
    size -= static_cast<size_t>(got);
  }
  return true;
}

// What the client sends ahead of the strings: the directory, the arguments, the environment, each with its NUL.
struct RequestHeader {
  uint32_t size;
  uint32_t argumentCount;
};

// What the broker sends: a block of standard output (1) or error (2), or the end (0) with the exit code as `value`.
struct ReplyHeader {
  uint32_t kind;
  uint32_t value;
};

struct Tool {
  const char* directory = nullptr;  // null: where the caller is
  std::vector<char*> arguments;     // both end with a null
  std::vector<char*> environment;
};

int ExitCode(int status) {
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Spawns a tool with an empty standard input and a pipe for each of its outputs.
pid_t Spawn(const Tool& tool, Descriptor (&outputs)[2]) {
  int out[2];
  int err[2];
  if (pipe2(out, O_CLOEXEC) != 0) return -1;
  Descriptor outRead(out[0]), outWrite(out[1]);
  if (pipe2(err, O_CLOEXEC) != 0) return -1;
  Descriptor errRead(err[0]), errWrite(err[1]);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  posix_spawn_file_actions_adddup2(&actions, err[1], 2);
  if (tool.directory != nullptr) posix_spawn_file_actions_addchdir_np(&actions, tool.directory);
  pid_t child = -1;
  int error =
      posix_spawnp(&child, tool.arguments[0], &actions, nullptr, tool.arguments.data(), tool.environment.data());
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) return -1;
  outputs[0] = std::move(outRead);
  outputs[1] = std::move(errRead);
  return child;
}

// Runs a tool to its end and hands its output on, block by block, as sink(1 or 2, data, size).
template <class Sink>
int Run(const Tool& tool, const Sink& sink) {
  Descriptor outputs[2];
  pid_t child = Spawn(tool, outputs);
  if (child < 0) return kBroken;
  pollfd polled[2] = {{outputs[0].Get(), POLLIN, 0}, {outputs[1].Get(), POLLIN, 0}};
  std::vector<char> block(65536);
  for (int open = 2; open > 0;) {
    if (poll(polled, 2, -1) < 0) continue;
    for (uint32_t i = 0; i < 2; ++i) {
      if (polled[i].fd < 0 || polled[i].revents == 0) continue;
      ssize_t got = read(polled[i].fd, block.data(), block.size());
      if (got > 0) {
        sink(i + 1, block.data(), static_cast<uint32_t>(got));
      } else {
        polled[i].fd = -1;
        --open;
      }
    }
  }
  int status = 0;
  waitpid(child, &status, 0);
  return ExitCode(status);
}

// The strings of a request, in place. False if they are not what the header says.
bool ParseRequest(const RequestHeader& header, std::vector<char>& text, Tool& tool) {
  if (text.empty() || text.back() != '\0' || header.argumentCount == 0) return false;
  uint32_t index = 0;
  for (char* at = text.data(); at < text.data() + text.size(); at += std::strlen(at) + 1, ++index) {
    if (index == 0) {
      tool.directory = at;
    } else {
      (index <= header.argumentCount ? tool.arguments : tool.environment).push_back(at);
    }
  }
  tool.arguments.push_back(nullptr);
  tool.environment.push_back(nullptr);
  return index > header.argumentCount;
}

void ServeClient(int client) {
  RequestHeader header;
  if (!ReadAll(client, &header, sizeof header)) return;
  std::vector<char> text(header.size);
  Tool tool;
  if (!ReadAll(client, text.data(), text.size()) || !ParseRequest(header, text, tool)) return;
  int code = Run(tool, [client](uint32_t kind, const char* data, uint32_t size) {
    ReplyHeader reply{kind, size};
    if (WriteAll(client, &reply, sizeof reply)) WriteAll(client, data, size);
  });
  ReplyHeader end{0, static_cast<uint32_t>(code)};
  WriteAll(client, &end, sizeof end);
}

sockaddr_un MakeAddress(const char* path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path, sizeof address.sun_path - 1);
  return address;
}

int Serve(const char* path, unsigned workers) {
  std::signal(SIGPIPE, SIG_IGN);
  Descriptor listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address = MakeAddress(path);
  if (bind(listener.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      listen(listener.Get(), 128) != 0) {
    std::perror("floor serve");
    return kBroken;
  }
  auto work = [&listener] {
    for (;;) {
      Descriptor client(accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
      if (client.Get() >= 0) ServeClient(client.Get());
    }
  };
  std::vector<std::jthread> threads;
  for (unsigned i = 1; i < workers; ++i) threads.emplace_back(work);
  work();
  return 0;
}

bool SendRequest(int broker, char** arguments) {
  char directory[4096];
  if (getcwd(directory, sizeof directory) == nullptr) return false;
  std::string text(sizeof(RequestHeader), '\0');
  auto add = [&text](std::string_view value) { text.append(value).push_back('\0'); };
  RequestHeader header{0, 0};
  add(directory);
  for (char** at = arguments; *at != nullptr; ++at, ++header.argumentCount) add(*at);
  for (char** at = environ; *at != nullptr; ++at) add(*at);
  header.size = static_cast<uint32_t>(text.size() - sizeof header);
  std::memcpy(text.data(), &header, sizeof header);
  return WriteAll(broker, text.data(), text.size());
}

int RunClient(const char* path, char** arguments) {
  Descriptor broker(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address = MakeAddress(path);
  if (connect(broker.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      !SendRequest(broker.Get(), arguments)) {
    std::perror("floor run");
    return kBroken;
  }
  ReplyHeader reply;
  std::vector<char> block(65536);
  while (ReadAll(broker.Get(), &reply, sizeof reply)) {
    if (reply.kind == 0) return static_cast<int>(reply.value);
    if (reply.value > block.size() || !ReadAll(broker.Get(), block.data(), reply.value)) break;
    WriteAll(static_cast<int>(reply.kind), block.data(), reply.value);
  }
  std::fprintf(stderr, "floor run: the broker went away\n");
  return kBroken;
}

int Batch(long count, unsigned atOnce, char** arguments) {
  Tool tool;
  for (char** at = arguments; *at != nullptr; ++at) tool.arguments.push_back(*at);
  tool.arguments.push_back(nullptr);
  for (char** at = environ; *at != nullptr; ++at) tool.environment.push_back(*at);
  tool.environment.push_back(nullptr);
  std::atomic<long> left{count};
  std::atomic<int> result{0};
  auto work = [&] {
    while (left.fetch_sub(1) > 0) {
      int code = Run(
          tool, [](uint32_t kind, const char* data, uint32_t size) { WriteAll(static_cast<int>(kind), data, size); });
      if (code != 0) result = code;
    }
  };
  std::vector<std::jthread> threads;
  for (unsigned i = 0; i < atOnce; ++i) threads.emplace_back(work);
  threads.clear();
  return result;
}

unsigned Number(const char* text) {
  return static_cast<unsigned>(std::strtoul(text, nullptr, 10));
}

}  // namespace

int main(int argc, char** argv) {
  std::string_view mode = argc > 1 ? argv[1] : "";
  if (mode == "serve" && (argc == 3 || argc == 4)) {
    return Serve(argv[2], argc == 4 ? Number(argv[3]) : std::thread::hardware_concurrency());
  }
  if (mode == "run" && argc >= 4) return RunClient(argv[2], argv + 3);
  if (mode == "batch" && argc >= 5) return Batch(std::strtol(argv[2], nullptr, 10), Number(argv[3]), argv + 4);
  std::fprintf(
      stderr, "usage: floor serve SOCKET [WORKERS] | run SOCKET TOOL [ARGS...] | batch COUNT AT_ONCE TOOL [ARGS...]\n");
  return 2;
}
