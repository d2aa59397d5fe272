#include "messaging/served_ipc_channel.h"

#include <utility>

namespace kestrun {

namespace {

// An honest client sends as soon as it is connected.
constexpr u32 kSilenceMs = 5000;
constexpr u32 kFrameAndHeaderSize = 4 + Message::kHeaderSize;
constexpr u32 kSegmentHeaderSize = 8;

u64 SizeOf(const Message::Segment& segment) {
  u64 size = kSegmentHeaderSize + u64{segment.GetDataLength()};
  for (u32 i = 0; i < segment.GetNestedCount(); ++i) size += SizeOf(*segment.GetNested(i));
  return size;
}

u64 FrameSize(const Message& message) {
  u64 size = kFrameAndHeaderSize;
  for (u32 i = 0; i < message.GetSegmentCount(); ++i) size += SizeOf(*message.GetSegment(i));
  return size;
}

}  // namespace

ServedIpcChannel::ServedIpcChannel(rc_ptr<IpcSocket> socket)
    : IpcChannel(std::move(socket)), acceptedAt_(GetTickCount()) {}

ServedIpcChannel::~ServedIpcChannel() {
  ServedIpcChannel::Close();
}

void ServedIpcChannel::Close() {
  rc_ptr<Thread> sender;
  {
    const Lock lock(queueLock_);
    isClosed_ = true;
    queue_.clear();
    sender = sender_;
  }
  IpcChannel::Close();
  if (sender) sender->Wait(kNoLimit);
}

bool ServedIpcChannel::Register(Reactor* reactor, MessageDelegate delegate) {
  delegate_ = std::move(delegate);
  return IpcChannel::Register(reactor, MakeDelegate(&ServedIpcChannel::OnMessage, this));
}

void ServedIpcChannel::OnMessage(rc_ptr<Message> message, MessageChannel* channel) {
  hasSpoken_ = true;
  if (delegate_) delegate_(std::move(message), channel);
}

bool ServedIpcChannel::GiveWay() {
  if (hasSpoken_ || GetTickCount() - acceptedAt_ < kSilenceMs) return false;
  socket_->GiveUp();
  return true;
}

// The lock is held while a message goes out that finds room, so that it keeps its place before the next one.
bool ServedIpcChannel::Send(rc_ptr<Message> message) {
  const Lock lock(queueLock_);
  if (isClosed_) return false;
  if (!isSending_ && FindsRoom(*message)) return IpcChannel::Send(std::move(message));
  return Queue(message);
}

// Room does not shrink while nobody else writes. A socket that has lost its peer fails at once.
bool ServedIpcChannel::FindsRoom(const Message& message) {
  return !socket_->IsConnected() || FrameSize(message) <= socket_->GetRoom();
}

bool ServedIpcChannel::Queue(const rc_ptr<Message>& message) {
  queue_.push_back(message);
  if (isSending_) return true;
  // The one before has nothing more to do than to end.
  if (sender_) sender_->Wait(kNoLimit);
  sender_ = new Thread("Result sender");
  isSending_ = sender_->Start(MakeDelegate(&ServedIpcChannel::SendQueued, this));
  if (!isSending_) queue_.clear();
  return isSending_;
}

void ServedIpcChannel::SendQueued() {
  while (rc_ptr<Message> message = NextQueued()) IpcChannel::Send(std::move(message));
}

rc_ptr<Message> ServedIpcChannel::NextQueued() {
  const Lock lock(queueLock_);
  if (queue_.empty()) {
    isSending_ = false;
    return nullptr;
  }
  rc_ptr<Message> message = queue_.front();
  queue_.pop_front();
  return message;
}

}  // namespace kestrun
