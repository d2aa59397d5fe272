// The server core of a master: listens for connections, keeps a table of channels by peer address, and delivers each
// received message to its registered clients, each on a thread pool of its own.
//
// A message goes to every client whose id is 0 or equals the message's destination number; one that nobody takes is
// dropped. There is no matching of replies: who wants to answer looks the channel up by the message's address
// (FindChannel) and sends on it. Messages that the dispatcher makes itself have the types below, services 0 and 0 and
// no segments.
//
//   type       meaning                                     goes to
//   kTick      housekeeping, every 10 s                    handled inside
//   kPing      are you there; to a channel silent for 25 s  the peer's dispatcher, answered with kPong
//   kPong      I am here                                   the peer's dispatcher, dropped there
//   kStarted   the dispatcher runs (a second after Run)    every client
//   kClosed    a channel has ended; address: the peer      every client
//   kTimedOut  silent for over 50 s, closed; address: peer every client
//
// Life: AddClient and the error listeners, Run, which blocks until Stop, then Close.
//
//   thread                        work
//   caller of Run                 sockets, timers, housekeeping
//   "Wait loop"                   accepting IPC connections; reading and parsing their channels; Post
//   "dispatcher init"             the started message, then gone
//   "MessageDispatcher::Client"   the handlers of messages; one worker sees them in order
//
// Handlers never run on a loop thread. Send, Post, PostDelayed, FindChannel and Stop may come from any thread. The two
// locks are never nested, and no lock is held across an operation of the transport.
//
// A client that does not stop within a minute ends the process with exit code 1.
#ifndef KESTRUN_MESSAGING_MESSAGE_DISPATCHER_H_
#define KESTRUN_MESSAGING_MESSAGE_DISPATCHER_H_

#include <map>
#include <string>
#include <vector>

#include "messaging/message.h"
#include "messaging/message_channel.h"
#include "messaging/timer.h"
#include "runtime/critical_section.h"
#include "runtime/delegate.h"
#include "runtime/rc_ptr.h"
#include "runtime/reactor.h"
#include "runtime/sync.h"
#include "runtime/thread_pool.h"
#include "runtime/types.h"
#include "transport/address.h"

namespace kestrun {

class IpcAcceptor;
class IpcSocket;
class TcpSocket;

class MessageDispatcher {
 public:
  class Client;
  class MessageTimer;

  using MessageHandler = Functor1<void, rc_ptr<Message>>::Type;
  using ErrorListener = Functor1<void, std::string>::Type;

  static constexpr u32 kTick = 1000000;
  static constexpr u32 kPing = 1000001;
  static constexpr u32 kPong = 1000002;
  static constexpr u32 kStarted = 1000003;
  static constexpr u32 kClosed = 1000004;
  static constexpr u32 kTimedOut = 1000005;

  // Channels that one wait can serve beside the reactor's own handle and the listener's. At this number the listener
  // waits for a channel to end before it accepts the next connection.
  static constexpr u32 kMaxIpcChannels = 62;

  // With port 0 or no host there are no sockets, with an empty name no IPC.
  MessageDispatcher(const std::string& host, u16 port, const std::string& ipcName);
  // Closes.
  ~MessageDispatcher();
  MessageDispatcher(const MessageDispatcher&) = delete;
  MessageDispatcher& operator=(const MessageDispatcher&) = delete;

  // Before Run. A handler that throws a SystemException is reported by its pool, which goes on. False if its threads
  // can't be had.
  virtual bool AddClient(u32 id, MessageHandler handler, u32 threads);
  // By UDP, where there is a socket for it; otherwise nothing.
  virtual void Broadcast(rc_ptr<Message> message, u16 port);
  // Where every message is routed: from channels, from timers and from this process itself.
  virtual void Post(rc_ptr<Message> message, bool fromTimer);
  virtual void OnChannelMessage(rc_ptr<Message> message, MessageChannel* channel);
  // False without a channel or if the channel fails.
  virtual bool Send(const Address& address, rc_ptr<Message> message);
  // Posted once, from the thread that runs Run; lost if that ends first.
  virtual void PostDelayed(rc_ptr<Message> message, u32 seconds, u32 milliseconds);

  // 0 after a Stop, -1 after an error, which the error listeners were told.
  int Run();
  void Stop();
  // False if the name for clients of this machine could not be had: Run goes on without that road. From the time on
  // that the clients are told of the start.
  bool IsListening() const { return isListening_; }
  // Closes all channels and what listens. After Run.
  void Close();

  // Empty if there is none, and for the empty address.
  rc_ptr<MessageChannel> FindChannel(const Address& address);
  // Begins to receive from it. An address that is in the table keeps its old channel.
  bool RegisterChannel(rc_ptr<MessageChannel> channel);
  // Closes it and tells the clients. False if it was not in the table.
  bool CloseChannel(rc_ptr<MessageChannel> channel);

  // The accept delegates; they take the socket. The address of an accepted connection is its channel's.
  bool OnNewSocketConnection(TcpSocket* socket);
  bool OnNewIpcConnection(IpcSocket* socket);

  // Before Run. Called with the text of a failure of the dispatcher, on any thread.
  void AddErrorListener(ErrorListener listener);
  // The same for failures of its reactor.
  void AddReactorErrorListener(ErrorListener listener);

 private:
  bool OpenSocketRoad();
  bool OpenIpcRoad();
  bool HasRoom();
  void Announce();
  void RunWaitLoop();
  void Housekeep();
  void Expire(const Address& address, const rc_ptr<MessageChannel>& channel);
  void TellClients(u32 type, const Address& address);
  bool RemoveChannel(MessageChannel* channel, Address& address);
  void OnHandlerClosed(Reactor::EventHandler* handler);
  void ReportError(const std::string& text);
  void StopAllActivity();
  bool StopClients();

  std::vector<ErrorListener> errorListeners_;  // constant while Run runs
  Reactor reactor_;
  const std::string host_;
  const u16 port_;
  rc_ptr<Reactor::EventHandler> socketAcceptor_;
  const std::string ipcName_;
  rc_ptr<IpcAcceptor> ipcAcceptor_;  // constant while Run runs; null without that road
  bool isListening_ = false;         // constant once Run has opened its roads
  CriticalSection clientsLock_;
  std::vector<rc_ptr<Client>> clients_;  // guarded by clientsLock_
  CriticalSection channelsLock_;
  std::map<Address, rc_ptr<MessageChannel>> channels_;  // guarded by channelsLock_
  rc_ptr<MessageChannel> datagramChannel_;
  Condition ended_;  // ends the wait of "dispatcher init"
};

// One receiver of messages with its worker threads. Counted; its destructor stops the pool.
class MessageDispatcher::Client : public rc_base {
 public:
  Client(u32 id, MessageHandler handler, u32 threads);
  ~Client() override;

  u32 GetId() const { return id_; }
  bool HasThreads() const { return hasThreads_; }
  // At the back of the queue.
  void Enqueue(const rc_ptr<Message>& message);
  // What still waits is dropped. False if a handler is not done within 60 s.
  bool Stop();

 private:
  const u32 id_;
  const MessageHandler handler_;
  ThreadPool<Functor0<void>::Type> pool_;
  const bool hasThreads_;
};

// Posts a message when its time has come. The reactor owns it and lets go of it once it has fired.
class MessageDispatcher::MessageTimer : public Timer {
 public:
  static void Start(const rc_ptr<Message>& message, MessageDispatcher* dispatcher, u32 seconds, u32 milliseconds);

 private:
  MessageTimer(const rc_ptr<Message>& message, MessageDispatcher* dispatcher);
};

}  // namespace kestrun

#endif  // KESTRUN_MESSAGING_MESSAGE_DISPATCHER_H_
