// A client's start ahead of the C library, against the ordinary one: what they ask of a master, and what they make of
// its answer. A variable of the options, even an empty one, makes a client start in the ordinary way.
#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "build_fixture.h"
#include "platform/local_stream.h"
#include "protocol/slot_request.h"

namespace kestrun::test {
namespace {

// False in a build with a sanitizer, whose own start comes first.
constexpr bool kStartsEarly = KESTRUN_STARTS_EARLY != 0;

// Tells an early start: a program in which the C library has started has a heap.
bool HasNoHeap(std::uint32_t processId) {
  std::ifstream maps("/proc/" + std::to_string(processId) + "/maps");
  const std::string text(std::istreambuf_iterator<char>(maps), {});
  EXPECT_NE(text.find("[stack]"), std::string::npos) << text;
  return text.find("[heap]") == std::string::npos;
}

struct Request {
  std::string bytes;
  bool isEarly = false;
};

// A slot server that gives each client the same answer; without an answer it hangs up.
class FakeSlots : public platform::LocalServer::Handler {
 public:
  explicit FakeSlots(const std::string& id) {
    std::string error;
    server_ = platform::LocalServer::Listen(GetSlotServerName(id), error);
    EXPECT_TRUE(server_) << error;
    thread_ = std::thread([this] { server_->Run(*this); });
  }
  ~FakeSlots() override {
    server_->Stop();
    thread_.join();
  }

  void SetAnswer(SlotAnswer answer) { answer_ = answer; }

  // What clients have asked since the last call.
  std::vector<Request> TakeRequests() {
    const std::lock_guard lock(mutex_);
    return std::exchange(requests_, {});
  }

 private:
  bool OnClient(platform::LocalServer::Client client, std::uint32_t processId, bool, const char* data,
                std::size_t size) override {
    const std::lock_guard lock(mutex_);
    requests_.push_back({std::string(data, size), kStartsEarly && HasNoHeap(processId)});
    const SlotAnswer answer = answer_;
    if (answer != SlotAnswer{}) server_->Answer(client, &answer, sizeof answer);
    return answer != SlotAnswer{};
  }
  void OnGone(platform::LocalServer::Client, const std::function<platform::ProcessEnd()>&) override {}

  std::unique_ptr<platform::LocalServer> server_;
  std::atomic<SlotAnswer> answer_{SlotAnswer::kGranted};
  std::mutex mutex_;
  std::vector<Request> requests_;  // guarded by mutex_
  std::thread thread_;
};

class EarlyStart : public Build {
 protected:
  // Runs a line of a shell in which "$@" stands for kestrun and the words.
  RunResult Shell(const std::string& line, const Words& words, ChildOptions options = {}) {
    Words command{"/bin/sh", "-c", line, "sh", ProgramPath("kestrun")};
    command.insert(command.end(), words.begin(), words.end());
    options.environment["KESTRUN_ID"] = id_;
    return test::Run(command, WithEnvironment(std::move(options)));
  }

  // Runs the words by both starts in the same environment and compares their requests.
  void ExpectSameRequests(const Words& words, bool isPlain, const ChildOptions& options = {}) {
    SCOPED_TRACE(testing::PrintToString(words).substr(0, 200));
    Shell("\"$@\"; KESTRUN_OPTS= \"$@\"; :", words, options);
    const std::vector<Request> requests = slots_.TakeRequests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0].bytes, requests[1].bytes);
    EXPECT_EQ(requests[0].isEarly, isPlain && kStartsEarly);
    EXPECT_FALSE(requests[1].isEarly);
  }

  FakeSlots slots_{id_};
};

TEST_F(EarlyStart, AsksWhatTheOrdinaryOneAsks) {
  ExpectSameRequests({"true"}, true);
  ExpectSameRequests({"true", "-c", "a b", "", "\t", "line\nline", "\v", "\r", "'", "$$C", "@list", "%PATH%"}, true);
  ExpectSameRequests({"true", "a\"b", "\\\"", "\\\\\"\\", "a\\", "a b\\", "\"", "-s", "--help"}, true);
  ExpectSameRequests({"true", "", "x"}, true);
  ExpectSameRequests({"true", std::string(5000, 'x')}, true);
  for (const std::size_t size : {3000u, 3030u, 3050u, 3071u, 3072u, 3073u}) {
    ExpectSameRequests({"true", std::string(size, 'x'), "a b"}, true);
    ExpectSameRequests({"/bin/" + std::string(size, 'x'), "a b"}, true);
  }
  ExpectSameRequests({"true", "\r", "x"}, false);
  ExpectSameRequests({"a tool", "x"}, false);
  ExpectSameRequests({"a\"tool", "x"}, false);
  ExpectSameRequests({"-n", "name", "true", "x"}, false);
  ExpectSameRequests({"-gt", "x"}, false);
}

TEST_F(EarlyStart, AsksFromAnyFolderAndAnyStreams) {
  std::string folder = folder_.Path().string();
  while (folder.size() < 259) folder += "/" + std::string(std::min<std::size_t>(99, 258 - folder.size()), 'f');
  for (const bool isPlain : {true, false}) {
    std::filesystem::create_directories(folder);
    ChildOptions options;
    options.workingDirectory = folder;
    ExpectSameRequests({"true"}, isPlain, options);
    folder += "f";
  }
  for (const char* const closed : {"<&-", ">&-", "2>&-"}) {
    Shell(std::string("exec ") + closed + "; \"$@\"; KESTRUN_OPTS= \"$@\"; :", {"true"});
    const std::vector<Request> requests = slots_.TakeRequests();
    ASSERT_EQ(requests.size(), 2u) << closed;
    EXPECT_EQ(requests[0].bytes, requests[1].bytes) << closed;
    EXPECT_FALSE(requests[0].isEarly) << closed;
  }
}

// The answer is the process's, whichever part of it goes on: no client asks twice.
TEST_F(EarlyStart, DoesAsItIsAnswered) {
  constexpr SlotAnswer kUnknown{77};
  constexpr SlotAnswer kHangUp{};
  const std::string findsSocket = "for f in /proc/self/fd/[3-9]; do test -S $f && exit 0; done; exit 1";
  folder_.Write("plain", "echo $0 $1\n");
  const std::string script = folder_.File("plain");
  std::filesystem::permissions(script, std::filesystem::perms::owner_all);
  const struct {
    SlotAnswer answer;
    Words words;
    int exitCode;
    std::string output;
  } rows[] = {
      {SlotAnswer::kGranted, {"sh", "-c", findsSocket}, 1, ""},
      {SlotAnswer::kKeepOpen, {"sh", "-c", findsSocket}, 0, ""},
      {SlotAnswer::kKeepOpen, {script, "x"}, 0, script + " x\n"},
      {SlotAnswer::kGranted, {"no-such-tool"}, 127, ""},
      {SlotAnswer::kStopping, {"echo", "out"}, 1, ""},
      {kUnknown, {"echo", "out"}, 0, "out\n"},
      {kHangUp, {"echo", "out"}, 0, "out\n"},
      {kHangUp, {script, "x"}, 0, script + " x\n"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.words) + std::to_string(static_cast<unsigned>(row.answer)));
    slots_.SetAnswer(row.answer);
    const RunResult ordinary = Shell("KESTRUN_OPTS= \"$@\"", row.words);
    const RunResult early = Shell("\"$@\"", row.words);
    EXPECT_EQ(early.exitCode, row.exitCode);
    EXPECT_EQ(early.output, row.output);
    EXPECT_EQ(early.exitCode, ordinary.exitCode);
    EXPECT_EQ(early.output, ordinary.output);
    EXPECT_EQ(early.errors, ordinary.errors);
    EXPECT_EQ(slots_.TakeRequests().size(), 2u);
  }
}

// A folder of one build's own is locked while a client uses it.
TEST_F(EarlyStart, AsksInAnotherFolder) {
  const std::filesystem::path usual = *WithEnvironment({}).environment.at("KESTRUN_OBJECT_DIR");
  for (const auto& [name, isPlain] : {std::pair("objects-1", true), std::pair("objects-1.2", false)}) {
    const std::filesystem::path folder = folder_.Path() / name;
    std::filesystem::create_directory(folder);
    std::filesystem::permissions(folder, std::filesystem::perms(0700));
    const std::string file = "stream." + GetSlotServerName(id_);
    std::filesystem::create_hard_link(usual / file, folder / file);
    ChildOptions options;
    options.environment["KESTRUN_OBJECT_DIR"] = folder.string();
    ExpectSameRequests({"true"}, isPlain, options);
  }
}

// Such a folder is refused, with a line that says so.
TEST_F(EarlyStart, AsksNoMasterInAFolderThatOthersMayUse) {
  const std::filesystem::path folder = *WithEnvironment({}).environment.at("KESTRUN_OBJECT_DIR");
  std::filesystem::permissions(folder, std::filesystem::perms(0755));
  const RunResult result = Shell("\"$@\"", {"echo", "out"});
  std::filesystem::permissions(folder, std::filesystem::perms(0700));
  EXPECT_NE(result.errors.find("its mode is not 0700"), std::string::npos) << result.errors;
  EXPECT_EQ(slots_.TakeRequests().size(), 0u);
}

}  // namespace
}  // namespace kestrun::test
