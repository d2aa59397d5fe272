#include "messaging/message_channel.h"

#include <optional>
#include <utility>

#include "messaging/wire_format.h"
#include "runtime/threads/thread.h"

namespace kestrun {

namespace {

// The input buffer is replaced once it has more memory than this, or more than this of bytes already parsed.
constexpr u32 kMaxIdleCapacity = 0x100000;
// The most that a buffer can hold.
constexpr u32 kMaxFrameLength = 0x7FFFFFFF;
// Up to this size a frame is sent without a change of the thread's priority.
constexpr u32 kSmallFrame = 0x4000;
// The last message is kept, for the segments that the next may share with it, up to this size.
constexpr u32 kMostKept = 0x10000;

}  // namespace

MessageChannel::MessageChannel() : input_(new MemoryStream()), bytesWanted_(wire::kFrameHeaderSize) {}

MessageChannel::~MessageChannel() {
  MessageChannel::Close();
}

void MessageChannel::Close() {
  if (output_) output_->Close();
}

u32 MessageChannel::BuildFrame(const Message& message, Message::Streams& out) {
  const rc_ptr<MemoryStream> head(new MemoryStream());
  out.push_back(rc_ptr<Stream>(head));
  const u32 size = static_cast<u32>(message.GetWireSize());
  static_assert(sizeof size == wire::kFrameHeaderSize);
  head->Write(&size, sizeof size);
  message.Serialize(out);
  return size;
}

u32 MessageChannel::Transmit(rc_ptr<Message> message) {
  const Lock lock(sendLock_);
  message->SetSequence(++sequence_);
  Message::Streams frame;
  const u32 size = BuildFrame(*message, frame);
  // A large frame holds the send lock for a while, so its sender gets precedence. For a small one, changing the
  // priority twice would take longer than sending.
  std::optional<ScopedThreadPriority> priority;
  if (size > kSmallFrame) priority.emplace(THREAD_PRIORITY_ABOVE_NORMAL);
  for (const auto& part : frame) {
    const auto& stream = static_cast<const MemoryStream&>(*part);
    if (stream.GetSize() > 0) output_->Write(stream.GetData(), stream.GetSize());
  }
  return size;
}

bool MessageChannel::Send(rc_ptr<Message> message) {
  try {
    Transmit(std::move(message));
    return true;
  } catch (const StreamException&) {
    return false;
  }
}

bool MessageChannel::Broadcast(rc_ptr<Message>, u16) {
  return false;
}

bool MessageChannel::Register(Reactor* reactor, MessageDelegate delegate) {
  // Stored first, because the loop may run on another thread, and an event may come before Register returns.
  delegate_ = std::move(delegate);
  if (reactor->Register(this)) return true;
  delegate_.Reset();
  return false;
}

bool MessageChannel::HandleEvent() {
  // Messages that came complete are delivered even if the peer has gone; the result closes the channel afterwards.
  const bool isUp = ReadInto(*input_, 0);
  while (HasBytes(bytesWanted_)) {
    if (receiveState_ == ReceiveState::kLength) {
      TakeFrameLength();
    } else {
      const rc_ptr<Message> message = TakeMessage();
      if (delegate_) delegate_(message, this);
    }
  }
  RecycleInput();
  return isUp;
}

// A read that fails may still have brought the rest of a frame, so the result alone does not decide.
rc_ptr<Message> MessageChannel::Receive(int timeoutMs) {
  for (;;) {
    if (rc_ptr<Message> message = ReceiveBuffered()) return message;
    const bool isUp = ReadInto(*input_, timeoutMs);
    if (!isUp && !HasBytes(bytesWanted_)) return nullptr;
  }
}

rc_ptr<Message> MessageChannel::ReceiveBuffered() {
  if (receiveState_ == ReceiveState::kLength && HasBytes(bytesWanted_)) TakeFrameLength();
  if (receiveState_ == ReceiveState::kLength || !HasBytes(bytesWanted_)) return nullptr;
  rc_ptr<Message> message = TakeMessage();
  RecycleInput();
  return message;
}

void MessageChannel::TakeFrameLength() {
  u32 length = 0;
  input_->Read(&length, sizeof length);
  // Checked before anything is allocated for it.
  if (length < Message::kHeaderSize || length > kMaxFrameLength) {
    throw Message::FormatException("Invalid length of a message");
  }
  bytesWanted_ = length;
  receiveState_ = ReceiveState::kBody;
}

rc_ptr<Message> MessageChannel::TakeMessage() {
  const u32 begin = input_->GetPosition();
  rc_ptr<Message> message(new Message(GetAddress(), bytesWanted_, *input_, last_.Get()));
  if (input_->GetPosition() - begin != bytesWanted_) {
    throw Message::FormatException("Segments do not end with their message");
  }
  last_ = bytesWanted_ <= kMostKept ? message : nullptr;
  bytesWanted_ = wire::kFrameHeaderSize;
  receiveState_ = ReceiveState::kLength;
  return message;
}

// Reuses an empty buffer. A buffer that is never empty, as under steady traffic, is replaced once it has many parsed
// bytes in front.
void MessageChannel::RecycleInput() {
  const u32 done = input_->GetPosition();
  const u32 left = input_->GetAvailable();
  if (left > 0 && done < kMaxIdleCapacity) return;
  if (left == 0 && input_->GetCapacity() <= kMaxIdleCapacity) {
    input_->Clear();
    return;
  }
  const rc_ptr<MemoryStream> fresh(new MemoryStream());
  fresh->Append(input_->GetData() + done, left);
  input_ = fresh;
}

}  // namespace kestrun
