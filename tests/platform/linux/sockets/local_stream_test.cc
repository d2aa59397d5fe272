#include "platform/local_stream.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>

#include "platform/linux/sockets/local_names.h"
#include "platform/tool_process.h"
#include "support/child.h"
#include "support/names.h"

namespace kestrun::platform {
namespace {

using test::Child;

// Serves on a thread of its own, and tells what happens as words.
class Server : public LocalServer::Handler {
 public:
  explicit Server(const std::string& name) {
    std::string error;
    server_ = LocalServer::Listen(name, error);
    EXPECT_TRUE(server_) << error;
    thread_ = std::thread([this] { server_->Run(*this); });
  }
  ~Server() override {
    server_->Stop();
    thread_.join();
  }

  // The next event: "<text>" of a client or "gone".
  std::string Next() {
    std::unique_lock lock(mutex_);
    if (!changed_.wait_for(lock, std::chrono::seconds(20), [this] { return !events_.empty(); })) return "(nothing)";
    std::string event = events_.front();
    events_.pop_front();
    return event;
  }
  void Answer(const char* text) { server_->Answer(client_, text, std::strlen(text)); }
  std::uint32_t ProcessId() const { return processId_; }

 private:
  bool OnClient(LocalServer::Client client, std::uint32_t processId, bool, const char* data,
                std::size_t size) override {
    const std::lock_guard lock(mutex_);
    client_ = client;
    processId_ = processId;
    const std::string text(data, size);
    if (text == "nonsense") return false;
    events_.push_back(text);
    changed_.notify_all();
    return true;
  }
  void OnGone(LocalServer::Client, const std::function<ProcessEnd()>&) override {
    const std::lock_guard lock(mutex_);
    events_.emplace_back("gone");
    changed_.notify_all();
  }

  std::unique_ptr<LocalServer> server_;
  std::thread thread_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::string> events_;
  std::atomic<LocalServer::Client> client_{0};
  std::atomic<std::uint32_t> processId_{0};
};

// Asks, says what it was answered, and becomes the program of its further words.
KESTRUN_CHILD(AsksAndBecomes) {
  const auto stream = LocalStream::Connect(words[0]);
  if (!stream || !stream->Send("ask", 3)) return 1;
  char answer[16];
  const std::size_t size = stream->Receive(answer, sizeof answer);
  test::Say(size == 0 ? "nothing" : std::string(answer, size));
  if (words.size() > 1) BecomeProgram({words.begin() + 1, words.end()});
  return 2;
}

TEST(LocalStream, AProcessBelongsToItsClientWhateverItBecomes) {
  const std::string name = test::UniqueName("local");
  Server server(name);
  Child child = Child::Self("AsksAndBecomes", {name, test::ProgramPath("test_tool"), "print", "became", ",", "hold"});
  ASSERT_EQ(server.Next(), "ask");
  EXPECT_EQ(server.ProcessId(), child.Pid());
  server.Answer("yes");
  EXPECT_EQ(child.ReadLine(), "yes");
  EXPECT_EQ(child.ReadLine(), "became");
  child.Kill();
  EXPECT_EQ(server.Next(), "gone");
}

TEST(LocalStream, AClientThatIsKilledWhileItWaitsIsGone) {
  const std::string name = test::UniqueName("local");
  Server server(name);
  Child child = Child::Self("AsksAndBecomes", {name});
  ASSERT_EQ(server.Next(), "ask");
  child.Kill();
  EXPECT_EQ(server.Next(), "gone");
  server.Answer("too late");  // harms nobody
}

TEST(LocalStream, AServerThatEndsIsSeenByItsClients) {
  const std::string name = test::UniqueName("local");
  auto server = std::make_unique<Server>(name);
  Child child = Child::Self("AsksAndBecomes", {name});
  ASSERT_EQ(server->Next(), "ask");
  server.reset();
  EXPECT_EQ(child.ReadLine(), "nothing");
  EXPECT_EQ(LocalStream::Connect(name), nullptr);
}

TEST(LocalStream, TheNameOfADeadServerIsTakenOver) {
  const std::string name = test::UniqueName("local, with an odd name / and a slash");
  {
    const LocalName address(name);
    const int dead = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(bind(dead, address.Get(), address.Size()), 0);
    close(dead);
  }
  EXPECT_EQ(LocalStream::Connect(name), nullptr);
  Server server(name);
  EXPECT_NE(LocalStream::Connect(name), nullptr);
}

// Connections that say nothing, hang up, or make no sense are no clients, and others are served beside them.
TEST(LocalStream, StrangeConnectionsHoldUpNobody) {
  const std::string name = test::UniqueName("local");
  Server server(name);
  const auto silent = LocalStream::Connect(name);
  LocalStream::Connect(name).reset();
  const auto odd = LocalStream::Connect(name);
  ASSERT_TRUE(silent && odd);
  EXPECT_TRUE(odd->Send("nonsense", 8));
  char byte = 0;
  EXPECT_EQ(odd->Receive(&byte, 1), 0u) << "it is hung up on";
  Child child = Child::Self("AsksAndBecomes", {name});
  EXPECT_EQ(server.Next(), "ask");
  server.Answer("yes");
  EXPECT_EQ(child.ReadLine(), "yes");
}

// The address of a socket is at most 107 bytes long, the path of a folder is not.
TEST(LocalStream, AFolderMayHaveALongPath) {
  const test::TempFolder place;
  std::string folder = place.File(std::string(200, 'x'));
  test::ChildOptions options;
  options.environment["KESTRUN_OBJECT_DIR"] = folder;
  Child child = Child::Self("ServesItself", {}, options);
  EXPECT_EQ(child.Wait(), 0) << child.Errors();
}

KESTRUN_CHILD(ServesItself) {
  Server server("self");
  const auto stream = LocalStream::Connect("self");
  if (!stream || !stream->Send("ask", 3)) return 1;
  return server.Next() == "ask" ? 0 : 2;
}

}  // namespace
}  // namespace kestrun::platform
