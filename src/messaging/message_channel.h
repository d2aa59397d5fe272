// Carries messages over a byte transport: frames and sends them, and reassembles those that come in.
//
// A frame is the message's size as a u32, little-endian, and the message. A channel works in one of two modes: under a
// Reactor (Register) each message goes to a delegate; without one, its owner calls Receive and blocks.
//
// Threads: any number may Send, one frame at a time; a slow peer delays the senders of its own channel. One thread at a
// time receives; in event mode the Reactor ensures that.
//
// Failure: Send gives false, Receive an empty pointer. Bytes that can't be a message are a Message::FormatException out
// of Receive or HandleEvent; the Reactor then closes the channel. A message that is cut off is never delivered, and
// messages that came complete before the end are delivered first.
#ifndef KESTRUN_MESSAGING_MESSAGE_CHANNEL_H_
#define KESTRUN_MESSAGING_MESSAGE_CHANNEL_H_

#include <cstdint>
#include <utility>

#include "messaging/message.h"
#include "runtime/base/critical_section.h"
#include "runtime/base/delegate.h"
#include "runtime/base/rc_ptr.h"
#include "runtime/base/types.h"
#include "runtime/files/memory_stream.h"
#include "runtime/files/stream.h"
#include "runtime/threads/reactor.h"
#include "transport/sockets/address.h"

namespace kestrun {

class MessageChannel : public Reactor::EventHandler {
 public:
  using MessageDelegate = Functor2<void, rc_ptr<Message>, MessageChannel*>::Type;

  // As ChannelFactory::Connect.
  static rc_ptr<MessageChannel> Create(const Address& address, u32 timeoutMs);

  ~MessageChannel() override;

  // Reactor::EventHandler
  u32 GetEvents() override { return 1; }
  bool UsesThreadPool() override { return true; }
  bool HandleEvent() override;
  void Close() override;

  virtual bool Connect(const Address& address, u32 timeoutMs) = 0;
  virtual bool Send(rc_ptr<Message> message);
  // As Send, but throws StreamException; returns the message's size. Part of a frame may be out when it throws.
  virtual u32 Transmit(rc_ptr<Message> message);
  // To all hosts of the local network; datagram channels only, false on others. Throws SocketException. Belongs to the
  // described interface; the program itself sends no broadcast.
  virtual bool Broadcast(rc_ptr<Message> message, u16 port);
  // -1 waits without limit; 0 polls a channel in shared memory until a message comes. A time-out in the middle of a
  // frame loses nothing: the next call goes on from there.
  virtual rc_ptr<Message> Receive(int timeoutMs);
  // A message that an earlier Receive has read from the transport along with its own; null if there is none.
  rc_ptr<Message> ReceiveBuffered();
  // Begins event mode. The delegate is called on the reactor's pool, or on its loop's thread if it has none.
  virtual bool Register(Reactor* reactor, MessageDelegate delegate);
  // The peer.
  virtual Address GetAddress() = 0;
  virtual bool IsDatagram() = 0;
  // True the first time only, so that a receiver that refuses messages of this channel writes one log record for all of
  // them. For the thread that receives.
  bool NoteRefusal() { return !std::exchange(hasRefusals_, true); }
  // Seconds, as from time(nullptr).
  virtual std::int64_t GetLastActivity() = 0;
  // Appends what has come. False if nothing came within a limit above 0, or if the peer is gone; what came before is
  // in the buffer then.
  virtual bool ReadInto(MemoryStream& buffer, int timeoutMs) = 0;

 protected:
  // The derived class gives the output stream in its constructor.
  MessageChannel();

  // The message's frame as a list of streams, to be written whole, in order; returns the message's size.
  static u32 BuildFrame(const Message& message, Message::Streams& out);

  static constexpr u32 kReadBlock = 8192;

  rc_ptr<Stream> output_;  // constant after construction

 private:
  enum class ReceiveState { kLength, kBody };

  bool HasBytes(u32 count) { return input_->GetAvailable() >= count; }
  void TakeFrameLength();
  rc_ptr<Message> TakeMessage();
  void RecycleInput();

  CriticalSection sendLock_;  // held for a whole frame; guards sequence_
  MessageDelegate delegate_;
  // Owned by the thread that receives.
  rc_ptr<MemoryStream> input_;
  ReceiveState receiveState_ = ReceiveState::kLength;
  u32 bytesWanted_;       // a frame's length field or the message behind it
  rc_ptr<Message> last_;  // null if it was large
  bool hasRefusals_ = false;
  u32 sequence_ = 1;
};

}  // namespace kestrun

#endif  // KESTRUN_MESSAGING_MESSAGE_CHANNEL_H_
