// Messages of one text, and a channel without a transport.
#ifndef KESTRUN_TESTS_MESSAGING_FAKES_H_
#define KESTRUN_TESTS_MESSAGING_FAKES_H_

#include <atomic>
#include <ctime>
#include <deque>
#include <string>

#include "messaging/message.h"
#include "messaging/message_channel.h"

namespace kestrun::test {

inline rc_ptr<Message> TextMessage(const std::string& text, u32 destination = 2) {
  rc_ptr<Message> message(new Message(101, 3, destination));
  message->AddString(4, text);
  return message;
}

inline std::string TextOf(const rc_ptr<Message>& message) {
  std::string text = "no message";
  if (message && message->FindSegment(4)) message->FindSegment(4)->GetString(text);
  return text;
}

// Never ready for a reactor. What comes in is a list of blocks, one a read; what goes out is kept.
class FakeChannel : public MessageChannel {
 public:
  explicit FakeChannel(const std::string& peer = "peer", std::int64_t silence = 0)
      : peerName(peer), silentSeconds(silence) {
    output_ = written.Get();
  }

  int GetHandle() override { return -1; }
  int GetHandleType() override { return Reactor::kWaitable; }
  void Close() override { isClosed = true; }
  bool Connect(const Address&, u32) override { return false; }
  Address GetAddress() override { return Address(Address::kInt, peerName); }
  bool IsDatagram() override { return false; }
  std::int64_t GetLastActivity() override { return std::time(nullptr) - silentSeconds; }
  bool ReadInto(MemoryStream& buffer, int) override {
    input = &buffer;
    if (blocks.empty()) return false;
    buffer.Append(blocks.front().data(), static_cast<u32>(blocks.front().size()));
    blocks.pop_front();
    return !blocks.empty() || staysUp;
  }

  std::string Written() const {
    return std::string(reinterpret_cast<const char*>(written->GetData()), written->GetSize());
  }
  // The type of the first message that went out, 0 if there was none.
  u32 GetSentType() const {
    if (!written->Seek(4)) return 0;
    return Message(Address(), written->GetSize() - 4, *written).GetType();
  }

  const std::string peerName;
  const std::int64_t silentSeconds;
  const rc_ptr<MemoryStream> written{new MemoryStream()};
  std::deque<std::string> blocks;
  bool staysUp = true;
  MemoryStream* input = nullptr;
  std::atomic<bool> isClosed{false};
};

}  // namespace kestrun::test

#endif  // KESTRUN_TESTS_MESSAGING_FAKES_H_
