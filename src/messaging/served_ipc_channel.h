// The master's end of a client's channel: a client that does not read delays no other client.
//
// Send never waits for the client to read. A message that finds room in the ring is written on the caller's thread;
// once a message finds none, it and those behind it are queued, and a thread of the channel sends them in order and
// ends with the last. The queue itself has no bound: it holds results of the client's own jobs, whose output the master
// bounds. A true result means sent or queued.
//
// Close drops what is queued. It waits for that thread, which the closing of the socket ends at once.
#ifndef KESTRUN_MESSAGING_SERVED_IPC_CHANNEL_H_
#define KESTRUN_MESSAGING_SERVED_IPC_CHANNEL_H_

#include <atomic>
#include <deque>

#include "messaging/ipc_channel.h"
#include "runtime/base/critical_section.h"
#include "runtime/threads/thread.h"

namespace kestrun {

class ServedIpcChannel : public IpcChannel {
 public:
  // The socket was accepted just now.
  explicit ServedIpcChannel(rc_ptr<IpcSocket> socket);
  ~ServedIpcChannel() override;

  bool Send(rc_ptr<Message> message) override;
  bool Register(Reactor* reactor, MessageDelegate delegate) override;
  void Close() override;

  // True while messages wait for room in the ring. Bytes in the ring need no sender: the client reads them even after
  // Close.
  bool HasUnsent();
  // Waits until no message waits, at most limitMs.
  void AwaitSent(u32 limitMs);
  // Evicts a connection that is 5 s old and has not brought a message: it is treated as if its client had gone, so that
  // another client can connect. True if it was such a connection. May be called from any thread, and does not wait.
  bool EvictIfSilent();

 private:
  void OnMessage(rc_ptr<Message> message, MessageChannel* channel);
  bool FindsRoom(const Message& message);
  bool Queue(const rc_ptr<Message>& message);
  void SendQueued();
  rc_ptr<Message> NextQueued();

  const u32 acceptedAt_;  // by the tick count
  std::atomic<bool> hasSpoken_{false};
  MessageDelegate delegate_;
  CriticalSection queueLock_;  // taken before all locks of the transport; not held while the transport waits
  // Guarded by queueLock_.
  bool isClosed_ = false;
  bool isSending_ = false;
  std::deque<rc_ptr<Message>> queue_;
  rc_ptr<Thread> sender_;  // the last one that was started; it may have returned
};

}  // namespace kestrun

#endif  // KESTRUN_MESSAGING_SERVED_IPC_CHANNEL_H_
