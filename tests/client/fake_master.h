// A master that a test plays by hand: it admits stubs, takes what they send and answers whatever the test likes.
#ifndef KESTRUN_TESTS_CLIENT_FAKE_MASTER_H_
#define KESTRUN_TESTS_CLIENT_FAKE_MASTER_H_

#include <gtest/gtest.h>

#include <string>

#include "messaging/ipc_channel.h"
#include "messaging/message.h"
#include "protocol/protocol.h"
#include "runtime/threads/sync.h"
#include "support/child.h"
#include "support/message_text.h"
#include "support/names.h"
#include "transport/shared/ipc_socket.h"

namespace kestrun::test {

class FakeMaster {
 public:
  FakeMaster() : access_(1, ("zelvo_client_access_" + id_).c_str()) {}

  const std::string& Id() const { return id_; }
  // The one place: held by a stub from its admission to its end.
  bool HasFreePlace() { return access_.Wait(0) && access_.Release(); }
  void TakePlace() { EXPECT_TRUE(access_.Wait(0)); }

  void Listen() { ASSERT_TRUE(listener_->Listen("zelvo_client_ipc_" + id_)); }
  // Waits for a stub to connect.
  void Accept() {
    const rc_ptr<IpcSocket> socket = listener_->Accept();
    ASSERT_TRUE(socket);
    channel_ = new IpcChannel(socket);
  }
  bool IsConnected() const { return static_cast<bool>(channel_); }
  rc_ptr<Message> Receive() { return channel_->Receive(-1); }

  static rc_ptr<Message> Output(const std::string& out, const std::string& err) {
    rc_ptr<Message> message = new Message(MSG_BUILD_RESULT, kMasterService, kStubService);
    message->AddString(SEG_STDOUT, out).AddString(SEG_STDERR, err);
    return message;
  }
  static rc_ptr<Message> Result(const std::string& out, const std::string& err, i32 code, bool keepGoing = false) {
    rc_ptr<Message> message = Output(out, err);
    message->AddI32(SEG_EXIT_CODE, code);
    if (keepGoing) message->AddU32(SEG_KEEP_GOING, 1);
    return message;
  }
  void Send(const rc_ptr<Message>& message) { EXPECT_TRUE(channel_->Send(message)); }
  void SendType(u32 type) { Send(new Message(type, kMasterService, kStubService)); }
  void HangUp() {
    channel_->Close();
    channel_.Reset();
  }

 private:
  const std::string id_ = UniqueName("fake");
  Semaphore access_;
  rc_ptr<IpcSocket> listener_ = new IpcSocket;
  rc_ptr<IpcChannel> channel_;
};

// A stub in a process of its own, against that master.
class StubTest : public testing::Test {
 protected:
  // The stub that `start` starts, once it has connected and sent its first message.
  template <class StartStub>
  Child TakeFirst(const StartStub& start) {
    master_.Listen();
    Child child = start();
    master_.Accept();
    first_ = master_.Receive();
    EXPECT_TRUE(first_);
    return child;
  }

  FakeMaster master_;
  const std::string tool_ = ProgramPath("test_tool");
  rc_ptr<Message> first_;
};

// The part of an exit code that every system keeps.
inline int LowByte(int exitCode) {
  return exitCode & 0xFF;
}

}  // namespace kestrun::test

#endif  // KESTRUN_TESTS_CLIENT_FAKE_MASTER_H_
