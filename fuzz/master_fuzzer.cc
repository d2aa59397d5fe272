// A live master in this process, and clients that send it anything: requests, half requests, messages in the master's
// own name, frames that are none, in any order, on several connections at once, and hang up in the middle. An honest
// client that has asked before them gets its own result, and so does one that comes after them. Threads and descriptors
// do not pile up; memory is bounded by the fuzzer's own limit and the sanitizer's search for leaks.
//
// Input: steps of a byte each with what they need. No byte of it becomes a tool's path: what is run is fixed here.
#include <array>
#include <filesystem>
#include <iterator>
#include <memory>
#include <thread>

#include "fuzz_input.h"
#include "master/project_stub.h"
#include "messaging/ipc_channel.h"
#include "protocol/message_reader.h"
#include "protocol/names.h"
#include "protocol/protocol.h"
#include "transport/shared/ipc_socket.h"

namespace kestrun::fuzz {
namespace {

constexpr const char* kId = "fuzz";
constexpr const char* kReady = "fuzz_ready";
constexpr const char* kStop = "fuzz_stop";
constexpr u32 kConnectMs = 60000;
constexpr int kReceiveMs = 60000;
constexpr u32 kSettleMs = 8000;
// Allows for helper processes that are kept for the next tool, and for descriptors that a busy machine has not closed
// yet. A leak would grow beyond any fixed number.
constexpr std::size_t kSlack = 24;

std::size_t CountEntries(const char* folder) {
  std::error_code error;
  const std::filesystem::directory_iterator entries(folder, error);
  return error ? 0 : static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

// Runs from the first input to the end of the process. A peer may stop it by MSG_STOP; the next input then starts a new
// one.
class Master {
 public:
  Master() {
    Folder();
    ready_.Reset(CreateEventA(nullptr, TRUE, FALSE, kReady));
    stop_.Reset(CreateEventA(nullptr, FALSE, FALSE, kStop));
    settings_.SetInt("LocalSettings/MaxConcurrentJobs", 3);
    for (const char* key : {"EagerScheduling", "CancelOrphanedJobs", "ReclaimPlaces", "DiscardOutput"}) {
      settings_.SetBool(std::string("Extensions/") + key, true);
    }
    Start();
  }
  ~Master() { End(); }

  void Refresh() {
    if (WaitForSingleObject(ended_.GetHandle(), 0) != WAIT_OBJECT_0) return;
    thread_.join();
    Start();
  }
  // True if a peer has stopped the master by MSG_STOP, which is no fault.
  bool HasEnded() {
    if (!ended_.Wait(0)) return false;
    ended_.Signal();
    return true;
  }

 private:
  void Start() {
    ResetEvent(ready_.Get());
    thread_ = std::thread([this] {
      Options options;
      options.id = kId;
      options.readyEvent = kReady;
      options.stopEvent = kStop;
      ProjectStub(settings_, options).Run();
      ended_.Signal();
    });
    FUZZ_REQUIRE(WaitForSingleObject(ready_.Get(), kConnectMs) == WAIT_OBJECT_0);
  }
  void End() {
    SetEvent(stop_.Get());
    thread_.join();
  }

  IniFile settings_;
  UniqueHandle ready_;
  UniqueHandle stop_;
  Condition ended_;
  std::thread thread_;
};

Master& TheMaster() {
  static Master master;
  return master;
}

rc_ptr<IpcSocket> Connect() {
  const rc_ptr<IpcSocket> socket(new IpcSocket());
  return socket->Connect(GetListeningName(kId), kConnectMs) ? socket : nullptr;
}

rc_ptr<Message> Request(const std::string& tool, const std::string& arguments) {
  rc_ptr<Message> request(new Message(MSG_BUILD_REQUEST, kStubService, kMasterService));
  request->AddString(SEG_TOOL, tool).AddString(SEG_ARGUMENTS, arguments).AddString(SEG_WORKING_DIR, ".");
  return request;
}

// A client that keeps to the protocol.
class HonestClient {
 public:
  explicit HonestClient(const std::string& text) : text_(text) {
    const rc_ptr<IpcSocket> socket = Connect();
    if (!socket) return;
    channel_ = new IpcChannel(socket);
    const rc_ptr<Message> request = Request("/bin/echo", text);
    request->AddString(SEG_PROJECT, "honest");
    channel_->Send(request);
  }
  bool IsServed() {
    const rc_ptr<Message> result = channel_ ? channel_->Receive(kReceiveMs) : nullptr;
    if (!result || result->GetType() != MSG_BUILD_RESULT) return false;
    std::string output;
    i32 code = -1;
    MessageReader(result).ReadString(SEG_STDOUT, output);
    MessageReader(result).ReadInt(SEG_EXIT_CODE, code);
    return code == 0 && output == text_ + "\n";
  }

 private:
  const std::string text_;
  rc_ptr<IpcChannel> channel_;
};

class Peers {
 public:
  void Step(Input& input) {
    const u8 kind = input.Byte();
    const std::size_t which = kind >> 6;
    if (!Has(which)) return;
    const rc_ptr<IpcSocket>& socket = sockets_[which];
    switch (kind % 8) {
      case 0:
        return Send(which, Request(input.Byte() % 2 == 0 ? "/bin/echo" : "/bin/false", Plain(input.Text(20))));
      case 1:
        return Send(which, HalfRequest(input));
      case 2:
        return Send(which, Forged(input));
      case 3:
        return Send(which, Announcement(input));
      case 4:
        return Write(socket, Plain(input.Piece()));
      case 5:
        return WriteFrame(socket, input);
      case 6:
        channels_[which] = nullptr;
        sockets_[which] = nullptr;
        return;
      default:
        Drain(socket);
    }
  }

 private:
  bool Has(std::size_t which) {
    if (sockets_[which]) return true;
    sockets_[which] = Connect();
    if (sockets_[which]) channels_[which] = new IpcChannel(sockets_[which]);
    return static_cast<bool>(sockets_[which]);
  }
  // Without what could name a file beside those above, and without any shell's meaning.
  static std::string Plain(std::string text) {
    for (char& c : text) {
      if (c == '/' || c == '~') c = '_';
    }
    return text;
  }
  static rc_ptr<Message> HalfRequest(Input& input) {
    rc_ptr<Message> request(new Message(MSG_BUILD_REQUEST, kStubService, kMasterService));
    const u8 parts = input.Byte();
    if ((parts & 1) != 0) request->AddString(SEG_TOOL, Plain(input.Text(12)));
    if ((parts & 2) != 0) request->AddU32(SEG_TOOL, input.Word());
    if ((parts & 4) != 0) request->AddString(SEG_ARGUMENTS, std::string(input.Byte() * 300u, 'a'));
    if ((parts & 8) != 0) request->AddString(SEG_WORKING_DIR, Plain(input.Text(4)));
    if ((parts & 16) != 0) request->AddString(SEG_PROJECT, "honest").AddU32(SEG_FLAGS, input.Word());
    if ((parts & 32) != 0) request->AddString(SEG_JOB_TIMEOUT, input.Text(3));
    if ((parts & 64) != 0) request->AddU32(SEG_ENV_VAR, input.Word()).AddString(SEG_ENV_NAME, Plain(input.Text(5)));
    if ((parts & 128) != 0) request->AddString(input.Byte(), Plain(input.Text(8)));
    return request;
  }
  // In the name of the master or its dispatcher, about a job that may be the honest client's.
  static rc_ptr<Message> Forged(Input& input) {
    static constexpr u32 kTypes[] = {MSG_LOCAL_JOB_RESULT,
                                     MSG_QUEUE_TICK,
                                     MSG_JOBS_FINISHED,
                                     MSG_DRAIN_REQUESTS,
                                     MSG_BUILD_RESULT,
                                     1000000,
                                     1000001,
                                     1000002,
                                     1000003,
                                     1000004,
                                     1000005};
    const u32 type = kTypes[input.Byte() % std::size(kTypes)];
    rc_ptr<Message> message(new Message(type, input.Byte() % 4, input.Byte() % 4));
    message->AddU32(SEG_JOB_ID, ForgedJob(input)).AddI32(SEG_EXIT_CODE, 0).AddString(SEG_STDOUT, "forged");
    return message;
  }
  static u32 ForgedJob(Input& input) { return input.Byte() % 2 == 0 ? input.Byte() : input.Word(); }
  static rc_ptr<Message> Announcement(Input& input) {
    rc_ptr<Message> message(new Message(MSG_PROJECT_DETAILS, kStubService, kMasterService));
    const bool isOfHonest = input.Byte() % 2 == 0;
    message->AddString(SEG_PROJECT, isOfHonest ? "honest" : input.Text(6)).AddU32(SEG_JOB_COUNT, input.Word());
    return message;
  }
  // The length may be true or not, and the text may hold segments that reach beyond it.
  static void WriteFrame(const rc_ptr<IpcSocket>& socket, Input& input) {
    const u32 claimed = input.Byte() % 2 == 0 ? 0 : input.Word();
    const std::string body = Plain(input.Piece());
    const u32 length = claimed != 0 ? claimed : static_cast<u32>(body.size());
    Write(socket, std::string(reinterpret_cast<const char*>(&length), sizeof length) + body);
  }
  static void Write(const rc_ptr<IpcSocket>& socket, const std::string& bytes) {
    socket->Write(bytes.data(), static_cast<u32>(bytes.size()), 100);
  }
  void Send(std::size_t which, const rc_ptr<Message>& message) { channels_[which]->Send(message); }
  static void Drain(const rc_ptr<IpcSocket>& socket) {
    std::array<char, 4096> block;
    for (int i = 0; i < 16 && socket->Read(block.data(), block.size(), 0).count > 0; ++i) continue;
  }

  std::array<rc_ptr<IpcSocket>, 4> sockets_;
  std::array<rc_ptr<IpcChannel>, 4> channels_;  // over the same sockets
};

// Peers that have hung up are noticed within a second.
bool ComesDown(const char* folder, std::size_t most) {
  const DWORD start = GetTickCount();
  while (CountEntries(folder) > most) {
    if (GetTickCount() - start > kSettleMs) return false;
    Sleep(5);
  }
  return true;
}

void RunOne(Input& input) {
  static u32 number = 0;
  TheMaster().Refresh();
  HonestClient before("before " + std::to_string(++number));
  {
    Peers peers;
    while (!input.IsEmpty()) peers.Step(input);
    const bool isServed = before.IsServed();
    FUZZ_REQUIRE(isServed || TheMaster().HasEnded());
  }
  if (TheMaster().HasEnded()) return;
  const bool isServed = HonestClient("after " + std::to_string(number)).IsServed();
  FUZZ_REQUIRE(isServed || TheMaster().HasEnded());
}

}  // namespace
}  // namespace kestrun::fuzz

extern "C" int LLVMFuzzerTestOneInput(const kestrun::u8* data, std::size_t size) {
  using namespace kestrun::fuzz;
  static const struct Usual {
    Usual() {
      for (int i = 0; i < 3; ++i) {
        Input none(nullptr, 0);
        RunOne(none);
      }
      threads = CountEntries("/proc/self/task");
      descriptors = CountEntries("/proc/self/fd");
    }
    std::size_t threads = 0;
    std::size_t descriptors = 0;
  } usual;
  Input input(data, size);
  RunOne(input);
  FUZZ_REQUIRE(ComesDown("/proc/self/task", usual.threads + kSlack));
  FUZZ_REQUIRE(ComesDown("/proc/self/fd", usual.descriptors + kSlack));
  return 0;
}
