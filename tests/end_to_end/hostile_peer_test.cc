// A master and peers that keep to no protocol. Each harms itself alone: beside it, other clients are served.
#include <algorithm>
#include <cstring>
#include <functional>
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
  // The master's end is closed, after whatever it had written before.
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
  // A client that was served by the master, and has not had to run its tool itself.
  void ExpectAHealthyClient(const char* beside) {
    const RunResult result = Tool({"print", "served", ",", "exit", "4"});
    EXPECT_EQ(result.exitCode, 4) << beside;
    EXPECT_EQ(result.output, "served\n") << beside;
    EXPECT_EQ(result.errors, "") << beside;
  }
};

// The master's own messages: the result of another's job, ticks, and what its dispatcher tells it.
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
  // What it left lying is whole and in order when it reads after all.
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
  // Nor does it keep the master from ending.
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

TEST_F(HostilePeer, ThatRuinsItsRingsIsTurnedOut) {
  StartMaster();
  const struct {
    const char* what;
    u32 offset;
    u32 value;
  } cases[] = {
      {"write index", 4, 0xFFFFFFF0}, {"read index", 8, 65520}, {"no ends at all", 12, 0}, {"capacity", 0, 0xFFFFFFFF}};
  for (const auto& c : cases) {
    const rc_ptr<IpcSocket> socket = ConnectRaw();
    {
      MappedFile region(socket->GetName(), 0, false);
      const rc_ptr<MappedFile::ViewImpl> view = region.CreateView(0, MappedFile::kWholeSize, true);
      std::memcpy(static_cast<char*>(view->GetData()) + c.offset, &c.value, sizeof c.value);
    }
    // The capacity is not looked at again: that one has done nothing.
    const bool isHarmless = c.offset == 0;
    const rc_ptr<IpcChannel> channel = new IpcChannel(socket);
    channel->Send(Request("exit 5"));
    socket->SignalReader();
    ExpectAHealthyClient(c.what);
    EXPECT_EQ(static_cast<bool>(channel->Receive(20000)), isHarmless) << c.what;
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
    // Nobody had to wait until that one was given up.
    char byte;
    EXPECT_TRUE(peers.back()->Read(&byte, 1, 0).isConnected) << ring;
  }
  for (const auto& peer : peers) EXPECT_TRUE(IsTurnedOut(*peer));
  EXPECT_EQ(StopMaster(), 0);
}

TEST_F(HostilePeer, ThatKeepsTheLockOfTheListeningNameHoldsUpNoConnection) {
  StartMaster();
  const std::string ring = "zelvo_client_ipc_" + id_ + ".c2s";
  const rc_ptr<IpcChannel> channel = new IpcChannel(ConnectRaw());
  {
    const NamedMutexLock kept(ring + ".lk");
    for (int i = 0; i < 3; ++i) {
      Condition((ring + ".ne").c_str()).Signal();
      channel->Send(Request("exit " + std::to_string(i)));
      EXPECT_TRUE(channel->Receive(60000)) << i;
    }
  }
  ExpectAHealthyClient("one that has given the lock back");
  EXPECT_EQ(StopMaster(), 0);
}

TEST_F(HostilePeer, ThatComesAndGoesLeavesNothingBehind) {
  StartMaster();
  for (int i = 0; i < 40; ++i) {
    const rc_ptr<IpcSocket> socket = ConnectRaw();
    if (i % 2 == 0) WriteWords(*socket, {100, 0x23000065});
    // Attached once more, and away again, behind the master's back.
    MappedFile region(socket->GetName(), 0, false);
    const rc_ptr<MappedFile::ViewImpl> view = region.CreateView(0, MappedFile::kWholeSize, true);
    { IpcRing again(view->GetData(), socket->GetName() + ".c2s"); }
  }
  ExpectAHealthyClient("forty that came and went");
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
