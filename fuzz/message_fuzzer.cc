// Passes the bytes of a peer to a channel. However they are cut into reads, the same messages come out and the channel
// ends for the same reason; and a message that was read is written as one that reads the same.
//
// Input: a byte for the size of the reads, and the stream.
#include <string>
#include <vector>

#include "fuzz_input.h"
#include "messaging/fakes.h"
#include "protocol/message_reader.h"

namespace kestrun::fuzz {
namespace {

std::string BytesOf(const Message& message) {
  Message::Streams streams;
  const u32 size = message.Serialize(streams);
  std::string bytes;
  for (const auto& stream : streams) {
    const auto& part = static_cast<const MemoryStream&>(*stream);
    bytes.append(reinterpret_cast<const char*>(part.GetData()), part.GetSize());
  }
  FUZZ_REQUIRE(bytes.size() == size);
  return bytes;
}

// Everything that a receiver does with a message.
std::string Use(const rc_ptr<Message>& message) {
  const MessageReader reader(message);
  for (u32 type = 0; type < 34; ++type) {
    std::string text;
    i32 number = 0;
    u64 wide = 0;
    reader.ReadString(type, text);
    reader.ReadInt(type, number);
    reader.ReadLong(type, wide);
  }
  std::string bytes = BytesOf(*message);
  MemoryStream stream(bytes.data(), static_cast<u32>(bytes.size()), true);
  const Message again(Address(), static_cast<u32>(bytes.size()), stream);
  FUZZ_REQUIRE(BytesOf(again) == bytes);
  FUZZ_REQUIRE(again.GetSegmentCount() == message->GetSegmentCount());
  return bytes;
}

struct Collector {
  void Take(rc_ptr<Message> message, MessageChannel*) { messages.push_back(Use(message)); }
  std::vector<std::string> messages;
};

// The channel under a reactor: its messages, and at the end whether it was closed.
std::vector<std::string> Handle(const std::string& bytes, std::size_t block) {
  Reactor reactor(0);
  Collector collector;
  const rc_ptr<test::FakeChannel> channel(new test::FakeChannel());
  FUZZ_REQUIRE(channel->Register(&reactor, MakeDelegate(&Collector::Take, &collector)));
  for (std::size_t at = 0; at < bytes.size(); at += block) channel->blocks.push_back(bytes.substr(at, block));
  std::string end = "open";
  try {
    while (!channel->blocks.empty()) channel->HandleEvent();
  } catch (const SystemException&) {
    end = "closed";
  }
  reactor.Unregister(channel.Get());
  collector.messages.push_back(end);
  return collector.messages;
}

}  // namespace
}  // namespace kestrun::fuzz

extern "C" int LLVMFuzzerTestOneInput(const kestrun::u8* data, std::size_t size) {
  using namespace kestrun::fuzz;
  Input input(data, size);
  const std::size_t block = std::size_t{1} + input.Byte();
  const std::string bytes = input.Rest();
  FUZZ_REQUIRE(Handle(bytes, block) == Handle(bytes, bytes.size() + 1));
  return 0;
}
