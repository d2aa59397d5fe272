// A master and a client that says what no stub would.
#include "build_fixture.h"
#include "messaging/ipc_channel.h"
#include "protocol/message_reader.h"
#include "protocol/protocol.h"

namespace kestrun::test {
namespace {

class RawClient : public Build {
 protected:
  void StartMasterAndConnect() {
    StartMaster();
    const rc_ptr<IpcSocket> socket = new IpcSocket;
    ASSERT_TRUE(socket->Connect("zelvo_client_ipc_" + id_, 10000));
    channel_ = new IpcChannel(socket);
  }
  static rc_ptr<Message> ToMaster(u32 type) { return new Message(type, kStubService, kMasterService); }
  // Sends it and gives the exit code and the error text that come back.
  std::string Answer(const rc_ptr<Message>& request) {
    channel_->Send(request);
    const rc_ptr<Message> result = channel_->Receive(20000);
    if (!result) return "nothing";
    i32 code = -1;
    std::string errors;
    MessageReader(result).ReadInt(SEG_EXIT_CODE, code);
    MessageReader(result).ReadString(SEG_STDERR, errors);
    return std::to_string(code) + " " + errors;
  }

  rc_ptr<IpcChannel> channel_;
};

TEST_F(RawClient, MeetsAMasterThatGoesOn) {
  StartMasterAndConnect();
  for (u32 type : {103u, u32{MSG_PROJECT_DETAILS}}) channel_->Send(ToMaster(type));
  rc_ptr<Message> request = ToMaster(MSG_BUILD_REQUEST);
  request->AddString(SEG_TOOL, tool_);
  EXPECT_EQ(Answer(request), "1 No such segment\r\n");
  request = ToMaster(MSG_BUILD_REQUEST);
  request->AddString(SEG_TOOL, tool_).AddString(SEG_ARGUMENTS, "error e , exit 4").AddString(SEG_WORKING_DIR, ".");
  EXPECT_EQ(Answer(request), "4 e\n");
  EXPECT_EQ(StopMaster(), 0);
  EXPECT_EQ(Master().Errors(), "");
  EXPECT_EQ(LogCount("New Project (from script-stub)"), 0);
}

TEST_F(RawClient, EndsTheMasterWithTheReasonThatItGives) {
  StartMasterAndConnect();
  channel_->Send(ToMaster(MSG_STOP));
  EXPECT_EQ(Master().Wait(), 0);
  StartMasterAndConnect();
  rc_ptr<Message> stop = ToMaster(MSG_STOP);
  stop->AddString(SEG_STOP_REASON, "");
  channel_->Send(stop);
  EXPECT_EQ(Master().Wait(), 0);
  EXPECT_EQ(LogCount(" reason:STOP command received\r\n"), 1);
  EXPECT_EQ(LogCount(" reason:\r\n"), 1);
}

TEST_F(RawClient, MeetsNoMasterThatCouldNotHearIt) {
  EXPECT_EQ(Kestrun({"-master", "-id", std::string(100, 'i')}).errors,
            "KESTRUN: error: the id is too long, it may have 99 bytes: " + std::string(100, 'i') + "\n");
  const rc_ptr<IpcSocket> inTheWay = new IpcSocket;
  ASSERT_TRUE(inTheWay->Listen("zelvo_client_ipc_" + id_));
  NamedEvent ready;
  const RunResult master = Kestrun({"-master", "-er", ready.Name()});
  EXPECT_EQ(master.exitCode, 1);
  EXPECT_NE(master.errors.find("cannot listen for clients"), std::string::npos);
  EXPECT_FALSE(ready.Wait(0));
}

}  // namespace
}  // namespace kestrun::test
