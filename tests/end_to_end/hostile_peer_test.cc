// A master and peers that break the protocol. Each harms only itself: other clients are served meanwhile.
#include <algorithm>
#include <atomic>
#include <functional>
#include <random>
#include <vector>

#include "build_fixture.h"
#include "messaging/ipc_channel.h"
#include "messaging/message_dispatcher.h"
#include "protocol/message_reader.h"
#include "protocol/protocol.h"
#include "runtime/files/mapped_file.h"

namespace kestrun::test {
namespace {

class HostilePeer : public Build {
 protected:
  rc_ptr<IpcSocket> ConnectRaw() {
    const rc_ptr<IpcSocket> socket = new IpcSocket;
    EXPECT_TRUE(socket->Connect("zelvo_client_ipc_" + id_, 60000));
    return socket;
  }
  static void WriteBytes(IpcSocket& socket, const std::string& bytes) {
    EXPECT_EQ(socket.Write(bytes.data(), static_cast<u32>(bytes.size()), 60000).count, bytes.size());
  }
  static void WriteWords(IpcSocket& socket, std::vector<u32> words) {
    WriteBytes(socket, std::string(reinterpret_cast<const char*>(words.data()), words.size() * sizeof(u32)));
  }
  // True if the master closes the connection, after whatever it had written before.
  static bool IsTurnedOut(IpcSocket& socket) {
    char byte;
    while (socket.Read(&byte, 1, 60000).isConnected) continue;
    return !socket.IsConnected();
  }
  rc_ptr<Message> Request(const std::string& arguments) {
    rc_ptr<Message> request = new Message(MSG_BUILD_REQUEST, kStubService, kMasterService);
    request->AddString(SEG_TOOL, tool_).AddString(SEG_ARGUMENTS, arguments).AddString(SEG_WORKING_DIR, ".");
    return request;
  }
  rc_ptr<IpcSocket> ConnectInTheEnd(class Scribbler& scribbler);
  // The first client may still meet damage that was done before. It then runs its tool itself or fails, with a message
  // in either case.
  void ExpectThatAClientIsServedInTheEnd() {
    const RunResult result = Tool({"print", "served", ",", "exit", "4"});
    if (result.exitCode == 4) {
      EXPECT_EQ(result.output, "served\n");
    } else {
      EXPECT_NE(result.errors, "") << "exit code " << result.exitCode;
    }
  }
  // Expects that a client is served by the master and does not have to run its tool itself.
  void ExpectAHealthyClient(const char* beside) {
    const RunResult result = Tool({"print", "served", ",", "exit", "4"});
    EXPECT_EQ(result.exitCode, 4) << beside;
    EXPECT_EQ(result.output, "served\n") << beside;
    EXPECT_EQ(result.errors, "") << beside;
  }
};

// Sends messages that only the master sends: the result of another client's job, ticks, and notices of its dispatcher.
TEST_F(HostilePeer, ThatSpeaksForTheMasterIsNotHeard) {
  StartMaster();
  const std::string mark = folder_.File("running");
  NamedEvent go;
  Child waiting = StartTool({"create", mark, ",", "await", go.Name(), ",", "exit", "4"});
  while (!Path(mark).Exists()) SwitchToThread();
  const rc_ptr<IpcChannel> channel = new IpcChannel(ConnectRaw());
  for (i32 job = 0; job < 4; ++job) {
    rc_ptr<Message> result = new Message(MSG_LOCAL_JOB_RESULT, kMasterService, kMasterService);
    result->AddI32(SEG_JOB_ID, job).AddI32(SEG_EXIT_CODE, 0).AddString(SEG_STDOUT, "forged\n");
    channel->Send(result);
  }
  for (const u32 type : {u32{MSG_QUEUE_TICK}, u32{MSG_JOBS_FINISHED}, u32{MSG_DRAIN_REQUESTS}}) {
    channel->Send(new Message(type, kMasterService, kMasterService));
  }
  for (u32 type = 1000000; type < 1000010; ++type) channel->Send(new Message(type, kMasterService, kMasterService));
  channel->Send(Request("exit 5"));
  EXPECT_EQ(channel->Receive(60000)->GetType(), MessageDispatcher::kPong);
  EXPECT_EQ(channel->Receive(60000)->GetType(), u32{MSG_BUILD_RESULT});
  go.Signal();
  EXPECT_EQ(waiting.Wait(), 4);
  EXPECT_EQ(waiting.Output(), "");
  EXPECT_EQ(LogCount("Message of a type that a peer may not send"), 1);
  EXPECT_EQ(LogCount("Finished Jobs"), 0);
  EXPECT_EQ(StopMaster(), 0);
}

TEST_F(HostilePeer, ThatAnnouncesTheProjectOfAnotherGetsNoneOfItsJobs) {
  StartMaster();
  const auto announce = [](u32 jobs) {
    rc_ptr<Message> details = new Message(MSG_PROJECT_DETAILS, kStubService, kMasterService);
    details->AddString(SEG_PROJECT, "p").AddU32(SEG_JOB_COUNT, jobs);
    return details;
  };
  const rc_ptr<IpcChannel> script = new IpcChannel(ConnectRaw());
  script->Send(announce(1));
  while (LogCount("New Project") < 1 && !Master().EndsWithin(10)) continue;
  const rc_ptr<IpcChannel> peer = new IpcChannel(ConnectRaw());
  for (int i = 0; i < 1000; ++i) peer->Send(announce(1));
  while (LogCount("New Project") < 1001 && !Master().EndsWithin(10)) continue;
  rc_ptr<Message> request = Request("exit 5");
  request->AddString(SEG_PROJECT, "p");
  script->Send(request);
  EXPECT_EQ(script->Receive(60000)->GetType(), u32{MSG_BUILD_RESULT});
  EXPECT_EQ(script->Receive(60000)->GetType(), u32{MSG_PROJECT_COMPLETE});
  EXPECT_EQ(StopMaster(), 0);
}

TEST_F(HostilePeer, ThatNeverReadsHoldsUpNobodyElse) {
  StartMaster();
  const rc_ptr<IpcChannel> channel = new IpcChannel(ConnectRaw());
  constexpr int kJobs = 3;
  for (int i = 0; i < kJobs; ++i) channel->Send(Request("fill 200000 0 , exit " + std::to_string(i)));
  while (LogCount("Build Job completed") < kJobs && !Master().EndsWithin(10)) continue;
  for (int i = 0; i < 3; ++i) ExpectAHealthyClient("one that does not read");
  // When the peer reads after all, the results are whole and in order.
  std::string first;
  std::vector<i32> codes;
  for (int i = 0; i < kJobs; ++i) {
    const rc_ptr<Message> result = channel->Receive(60000);
    ASSERT_TRUE(result);
    EXPECT_EQ(result->GetSequence(), static_cast<u32>(i) + 2);
    std::string output;
    i32 code = -1;
    MessageReader(result).ReadString(SEG_STDOUT, output);
    MessageReader(result).ReadInt(SEG_EXIT_CODE, code);
    EXPECT_EQ(output.size(), 200000u);
    if (i == 0) first = output;
    EXPECT_EQ(output, first);
    codes.push_back(code);
  }
  std::sort(codes.begin(), codes.end());
  EXPECT_EQ(codes, (std::vector<i32>{0, 1, 2}));
  // A result that is not read does not keep the master from ending either.
  channel->Send(Request("fill 200000 0"));
  while (LogCount("Build Job completed") < kJobs + 4 && !Master().EndsWithin(10)) continue;
  EXPECT_EQ(StopMaster(), 0);
}

TEST_F(HostilePeer, ThatSendsNoMessagesIsTurnedOutOrLeftWaiting) {
  StartMaster();
  const struct {
    const char* what;
    std::function<void(IpcSocket&)> harm;
    bool isTurnedOut;
  } cases[] = {
      {"a gigabyte announced",
       [](IpcSocket& s) {
         WriteWords(s, {0x40000000, 1, 2, 3});
       },
       false},
      {"half a frame",
       [](IpcSocket& s) {
         WriteWords(s, {100, 0x23000065, 2});
       },
       false},
      {"half a length", [](IpcSocket& s) { WriteBytes(s, "ab"); }, false},
      {"a length without bounds",
       [](IpcSocket& s) {
         WriteWords(s, {0xFFFFFFFF, 1, 2, 3});
       },
       true},
      {"segments without end",
       [](IpcSocket& s) {
         WriteWords(s, {24, 0x23000065, 2, 4, 0x7FFFFFFF, 0, 0});
       },
       true},
      {"children that never come",
       [](IpcSocket& s) {
         WriteWords(s, {16, 0x23000065, 2, 0x80000001, 9});
       },
       true},
  };
  std::vector<rc_ptr<IpcSocket>> peers;
  for (const auto& c : cases) {
    peers.push_back(ConnectRaw());
    c.harm(*peers.back());
    ExpectAHealthyClient(c.what);
    if (c.isTurnedOut) {
      EXPECT_TRUE(IsTurnedOut(*peers.back())) << c.what;
    } else {
      char byte;
      EXPECT_TRUE(peers.back()->Read(&byte, 1, 0).isConnected) << c.what;
    }
  }
  EXPECT_EQ(StopMaster(), 0);
}

TEST_F(HostilePeer, ThatKeepsTheLockOfARingIsTurnedOut) {
  StartMaster();
  std::vector<rc_ptr<IpcSocket>> peers;
  std::vector<rc_ptr<IpcChannel>> channels;
  std::vector<std::unique_ptr<NamedMutexLock>> kept;
  for (const char* ring : {".c2s", ".s2c"}) {
    peers.push_back(ConnectRaw());
    kept.push_back(std::make_unique<NamedMutexLock>(peers.back()->GetName() + ring + ".lk"));
    channels.push_back(new IpcChannel(peers.back()));
    channels.back()->Send(Request("exit 5"));
    ExpectAHealthyClient(ring);
    // The peer is still connected: the healthy client did not have to wait until the master closed that connection.
    char byte;
    EXPECT_TRUE(peers.back()->Read(&byte, 1, 0).isConnected) << ring;
  }
  for (const auto& peer : peers) EXPECT_TRUE(IsTurnedOut(*peer));
  EXPECT_EQ(StopMaster(), 0);
}

// Writes random words over the shared memory that a client of the master can reach: the headers of its own rings and of
// those of the listening name, their data, and the table of places.
class Scribbler {
 public:
  Scribbler(const std::string& id, u32 seed) : id_(id), random_(seed) {
    Map("zelvo_client_ipc_" + id);
    Map("zelvo_client_places_" + id);
  }
  void Map(const std::string& name) {
    try {
      regions_.push_back(std::make_unique<MappedFile>(name, 0, false));
      views_.push_back(regions_.back()->CreateView(0, MappedFile::kWholeSize, true));
    } catch (const MappedFileException& e) {
      ADD_FAILURE() << name << ": " << e.what();
    }
  }
  void WriteSome(int count) {
    for (int i = 0; i < count; ++i) {
      const auto& view = views_[Random() % views_.size()];
      const u32 words = view->GetSize() / 4;
      // About half of the words go where they do most harm: into the header of a ring.
      const u32 inHeader = Random() % 2 * (0x10000 / 4) + Random() % 4;
      const u32 at = Random() % 2 == 0 && words > 0x10000 / 4 ? inHeader : Random() % words;
      // Relaxed: a hostile peer keeps no order.
      std::atomic_ref<u32>(static_cast<u32*>(view->GetData())[at]).store(Value(), std::memory_order_relaxed);
    }
  }
  // Signals the events that announce a change of the table and a request, whether or not there is one.
  void WakeMaster() {
    Condition(("zelvo_client_places_" + id_ + ".call").c_str()).Signal();
    Condition(("zelvo_client_ipc_" + id_ + ".c2s.ne").c_str()).Signal();
  }
  u32 Random() { return static_cast<u32>(random_()); }

 private:
  // Small numbers, numbers near the bounds, and arbitrary ones.
  u32 Value() {
    const u32 value = Random();
    const u32 edges[] = {0, 1, 0xFFEF, 0xFFF0, 0xFFF1, 0x10000, 0x7FFFFFFF, 0xFFFFFFFF};
    if (value % 3 == 0) return edges[value / 3 % 8];
    return value % 3 == 1 ? value % 0x10000 : value;
  }

  const std::string id_;
  std::mt19937 random_;
  std::vector<std::unique_ptr<MappedFile>> regions_;
  std::vector<rc_ptr<MappedFile::ViewImpl>> views_;
};

// Tries until a connection stands: the master repairs the listening region whenever it wakes, and a reply that is lost
// costs only its own connector.
rc_ptr<IpcSocket> HostilePeer::ConnectInTheEnd(Scribbler& scribbler) {
  const u32 start = GetTickCount();
  while (GetTickCount() - start < 60000 && !Master().EndsWithin(0)) {
    rc_ptr<IpcSocket> socket = new IpcSocket;
    if (socket->Connect("zelvo_client_ipc_" + id_, 500)) return socket;
    scribbler.WakeMaster();
    SwitchToThread();
  }
  return nullptr;
}

// During the attack other clients may fail, but they end, and with a message; afterwards they are served as before.
TEST_F(HostilePeer, ThatScribblesOverAllSharedMemoryNeitherStopsNorHangsTheMaster) {
  const u32 seed = ReadNumber("KESTRUN_SCRIBBLE_SEED", 20240131);
  SCOPED_TRACE("KESTRUN_SCRIBBLE_SEED=" + std::to_string(seed));
  WriteSettings("[Extensions]\nReclaimPlaces=bool:true\nEagerScheduling=bool:true\n");
  StartMaster();
  Scribbler scribbler(id_, seed);
  const unsigned rounds = Scaled(ReadNumber("KESTRUN_SCRIBBLE_ROUNDS", 100));
  for (unsigned round = 0; round < rounds; ++round) {
    const rc_ptr<IpcSocket> socket = ConnectInTheEnd(scribbler);
    ASSERT_TRUE(socket) << "round " << round;
    Scribbler own(id_, scribbler.Random());
    own.Map(socket->GetName());
    const rc_ptr<IpcChannel> channel = new IpcChannel(socket);
    channel->Send(Request("exit 5"));
    own.WriteSome(50);
    socket->SignalReader();
    scribbler.WriteSome(20);
    scribbler.WakeMaster();
    ASSERT_FALSE(Master().EndsWithin(0)) << "round " << round;
  }
  ExpectThatAClientIsServedInTheEnd();
  ExpectAHealthyClient("one that has scribbled");
  EXPECT_EQ(StopMaster(), 0);
}

TEST_F(HostilePeer, ThatTakesEveryPlaceAndSaysNothingMustGiveWay) {
  WriteSettings("IpcTimeout=int:60000\n");
  StartMaster();
  std::vector<rc_ptr<IpcSocket>> peers;
  for (int i = 0; i < 100; ++i) peers.push_back(ConnectRaw());
  ExpectAHealthyClient("a hundred silent ones");
  EXPECT_TRUE(IsTurnedOut(*peers.front()));
  EXPECT_EQ(StopMaster(), 0);
}

}  // namespace
}  // namespace kestrun::test
