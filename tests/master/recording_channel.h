// A channel that keeps what is sent on it, for a dispatcher that does not run.
#ifndef KESTRUN_TESTS_MASTER_RECORDING_CHANNEL_H_
#define KESTRUN_TESTS_MASTER_RECORDING_CHANNEL_H_

#include <ctime>
#include <string>

#include "messaging/message_channel.h"
#include "messaging/message_dispatcher.h"
#include "protocol/protocol.h"
#include "runtime/threads/blocking_queue.h"
#include "support/message_text.h"

namespace kestrun::test {

class RecordingChannel : public MessageChannel {
 public:
  explicit RecordingChannel(const std::string& name) : address_(Address::kIpc, name) {}

  // Puts a new channel into the dispatcher's table.
  static rc_ptr<RecordingChannel> Add(MessageDispatcher& dispatcher, const std::string& name) {
    rc_ptr<RecordingChannel> channel = new RecordingChannel(name);
    dispatcher.RegisterChannel(channel);
    return channel;
  }

  // Waits for the next message.
  rc_ptr<Message> Next() {
    rc_ptr<Message> message;
    sent_.Pop(message, kNoLimit);
    return message;
  }
  u32 Count() { return sent_.GetSize(); }

  bool Send(rc_ptr<Message> message) override {
    sent_.Push(message);
    return true;
  }
  bool Register(Reactor*, MessageDelegate) override { return true; }
  void Close() override {}
  int GetHandle() override { return -1; }
  int GetHandleType() override { return Reactor::kWaitable; }
  bool Connect(const kestrun::Address&, u32) override { return false; }
  kestrun::Address GetAddress() override { return address_; }
  bool IsDatagram() override { return false; }
  std::int64_t GetLastActivity() override { return std::time(nullptr); }
  bool ReadInto(MemoryStream&, int) override { return false; }

 private:
  const kestrun::Address address_;
  BlockingQueue<rc_ptr<Message>> sent_;
};

}  // namespace kestrun::test

#endif  // KESTRUN_TESTS_MASTER_RECORDING_CHANNEL_H_
