// One receiver of a dispatcher's messages, with its worker threads and their queue.
//
// Counted; the destructor stops the threads. Enqueue and the questions may come from any thread, Stop from one. A
// handler's SystemException is printed by the pool, and the worker goes on.
#ifndef KESTRUN_MESSAGING_DISPATCHER_CLIENT_H_
#define KESTRUN_MESSAGING_DISPATCHER_CLIENT_H_

#include "messaging/message.h"
#include "runtime/base/delegate.h"
#include "runtime/base/rc_ptr.h"
#include "runtime/base/types.h"
#include "runtime/threads/thread_pool.h"

namespace kestrun {

class DispatcherClient : public rc_base {
 public:
  using Handler = Functor1<void, rc_ptr<Message>>::Type;
  // True for the types of messages that a peer may send to this receiver.
  using PeerTypes = bool (*)(u32 type);

  // The handler runs on `threads` threads, "MessageDispatcher::Client"; one thread sees the messages in order.
  DispatcherClient(u32 id, Handler handler, u32 threads, PeerTypes mayPeerSend);
  ~DispatcherClient() override;

  u32 GetId() const { return id_; }
  // True if the message is for this receiver; the receiver with id 0 takes the messages to all destinations.
  bool IsReceiverOf(const Message& message) const { return id_ == 0 || id_ == message.GetDestination(); }
  bool MayPeerSend(u32 type) const { return mayPeerSend_(type); }
  bool HasThreads() const { return hasThreads_; }
  // At the back of the queue. From any thread.
  void Enqueue(const rc_ptr<Message>& message);
  // Drops what is queued. False if a handler does not return within 60 s.
  bool Stop();

 private:
  const u32 id_;
  const Handler handler_;
  const PeerTypes mayPeerSend_;
  ThreadPool<Functor0<void>::Type> pool_;
  const bool hasThreads_;
};

}  // namespace kestrun

#endif  // KESTRUN_MESSAGING_DISPATCHER_CLIENT_H_
