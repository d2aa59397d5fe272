#include "messaging/served_ipc_channel.h"

#include <utility>

#include "messaging/wire_format.h"

namespace kestrun {

namespace {

// A client sends as soon as it is connected, so one that is silent for longer is stuck or hostile.
constexpr u32 kSilenceMs = 5000;

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
  // Without the lock: this ends the sender's write, and the sender takes the lock next.
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

bool ServedIpcChannel::EvictIfSilent() {
  if (hasSpoken_ || GetTickCount() - acceptedAt_ < kSilenceMs) return false;
  socket_->DropPeer();
  return true;
}

// The lock is held while a message that finds room is written, so that messages go out in the order of the calls.
bool ServedIpcChannel::Send(rc_ptr<Message> message) {
  const Lock lock(queueLock_);
  if (isClosed_) return false;
  if (!isSending_ && FindsRoom(*message)) return IpcChannel::Send(std::move(message));
  return Queue(message);
}

// True if the write would not wait. Only writes take room, and they need queueLock_, so the room stays until the write.
// A socket that has lost its peer fails at once, which is no wait either.
bool ServedIpcChannel::FindsRoom(const Message& message) {
  return !socket_->IsConnected() || wire::kFrameHeaderSize + message.GetWireSize() <= socket_->GetRoom();
}

bool ServedIpcChannel::HasUnsent() {
  const Lock lock(queueLock_);
  return isSending_;
}

// The sender thread returns when it has found the queue empty, so its end is what is waited for.
void ServedIpcChannel::AwaitSent(u32 limitMs) {
  rc_ptr<Thread> sender;
  {
    const Lock lock(queueLock_);
    if (isSending_) sender = sender_;
  }
  if (sender) sender->Wait(limitMs);
}

bool ServedIpcChannel::Queue(const rc_ptr<Message>& message) {
  queue_.push_back(message);
  if (isSending_) return true;
  // The previous sender has found the queue empty and is about to return, so this wait is short.
  if (sender_) sender_->Wait(kNoLimit);
  sender_ = new Thread("Result sender");
  isSending_ = sender_->Start(MakeDelegate(&ServedIpcChannel::SendQueued, this));
  // Without a thread the message can't be kept: no later event would send it.
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
