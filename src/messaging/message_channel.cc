#include "messaging/message_channel.h"

#include <utility>

#include "runtime/thread.h"

namespace kestrun {

namespace {

constexpr u32 kLengthSize = 4;
// Beyond this much allocation, or this much that is read and done with, the input buffer is given back.
constexpr u32 kMaxIdleCapacity = 0x100000;
// What a buffer can hold.
constexpr u32 kMaxFrameLength = 0x7FFFFFFF;

}  // namespace

MessageChannel::MessageChannel() : input_(new MemoryStream()), bytesWanted_(kLengthSize) {}

MessageChannel::~MessageChannel() {
  MessageChannel::Close();
}

void MessageChannel::Close() {
  if (output_) output_->Close();
}

u32 MessageChannel::BuildFrame(const Message& message, Message::Streams& out) {
  const rc_ptr<MemoryStream> head(new MemoryStream());
  out.push_back(rc_ptr<Stream>(head));
  u32 size = 0;
  head->Write(&size, sizeof size);
  size = message.Serialize(out);
  head->Seek(0);
  head->Write(&size, sizeof size);
  return size;
}

u32 MessageChannel::Transmit(rc_ptr<Message> message) {
  const Lock lock(sendLock_);
  const ScopedThreadPriority priority(THREAD_PRIORITY_ABOVE_NORMAL);
  message->SetSequence(++sequence_);
  Message::Streams frame;
  const u32 size = BuildFrame(*message, frame);
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
  // Stored first: the loop may be on another thread than this one, and an event may come before Register is back.
  reactor_ = reactor;
  delegate_ = std::move(delegate);
  if (reactor->Register(this)) return true;
  reactor_ = nullptr;
  delegate_.Reset();
  return false;
}

bool MessageChannel::HandleEvent() {
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

// A read that fails may still have brought the rest of a frame, so the bytes decide and not the result alone.
rc_ptr<Message> MessageChannel::Receive(int timeoutMs) {
  for (;;) {
    while (!HasBytes(bytesWanted_)) {
      const bool isUp = ReadInto(*input_, timeoutMs);
      if (!isUp && !HasBytes(bytesWanted_)) return nullptr;
    }
    if (receiveState_ == ReceiveState::kBody) break;
    TakeFrameLength();
  }
  rc_ptr<Message> message = TakeMessage();
  RecycleInput();
  return message;
}

void MessageChannel::TakeFrameLength() {
  u32 length = 0;
  input_->Read(&length, sizeof length);
  if (length < Message::kHeaderSize || length > kMaxFrameLength) {
    throw Message::FormatException("Invalid length of a message");
  }
  frameLength_ = length;
  bytesWanted_ = length;
  receiveState_ = ReceiveState::kBody;
}

rc_ptr<Message> MessageChannel::TakeMessage() {
  const u32 begin = input_->GetPosition();
  rc_ptr<Message> message(new Message(GetAddress(), frameLength_, *input_));
  if (input_->GetPosition() - begin != frameLength_) {
    throw Message::FormatException("Segments do not end with their message");
  }
  bytesWanted_ = kLengthSize;
  receiveState_ = ReceiveState::kLength;
  return message;
}

// Without bytes left the buffer starts anew. Else the bytes that are done with go once they are many, since under
// steady traffic the buffer may never be empty.
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
