// The server core of a master: listens for connections, keeps a table of channels by peer address, and delivers each
// received message to its registered clients, each on a thread pool of its own.
//
// A message goes to every client whose id is 0 or equals the message's destination number; one without a client is
// dropped. What a message may do depends on its origin: a peer's message comes in by OnChannelMessage, which delivers
// only the types that the client lets peers send, and never one of the dispatcher's own below; messages of this process
// to itself come in by Post. A refused message is dropped, with one log record for each channel.
//
// Replies are not matched to requests: a client answers on the channel that FindChannel gives for the message's
// address. Messages that the dispatcher makes itself have the types below, services 0 and 0 and no segments.
//
//   type       meaning                                     goes to
//   kTick      housekeeping, every 10 s                    handled inside
//   kPing      are you there; to a channel silent for 25 s  the peer's dispatcher, answered with kPong
//   kPong      I am here                                   the peer's dispatcher, dropped there
//   kStarted   the dispatcher runs (SetStartDelay)         every client
//   kClosed    a channel has ended; address: the peer      every client
//   kTimedOut  silent for over 50 s, closed; address: peer every client
//
// Use: AddClient and the error listeners, Run, which blocks until Stop and then listens no more, then Close.
//
//   thread                        work
//   caller of Run                 sockets, timers, housekeeping
//   "Wait loop"                   accepting IPC connections; reading and parsing their channels; Post
//   "dispatcher init"             the started message, then gone; none without a start delay
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

#include "messaging/dispatcher_client.h"
#include "messaging/message.h"
#include "messaging/message_channel.h"
#include "messaging/socket_listener.h"
#include "runtime/base/critical_section.h"
#include "runtime/base/delegate.h"
#include "runtime/base/rc_ptr.h"
#include "runtime/base/types.h"
#include "runtime/threads/reactor.h"
#include "runtime/threads/sync.h"
#include "runtime/threads/thread.h"
#include "transport/sockets/address.h"

namespace kestrun {

class IpcAcceptor;
class IpcSocket;
class ServedIpcChannel;
class TcpSocket;

class MessageDispatcher {
 public:
  using Client = DispatcherClient;
  using MessageHandler = DispatcherClient::Handler;
  using PeerTypes = DispatcherClient::PeerTypes;
  using ErrorListener = Functor1<void, std::string>::Type;

  static constexpr u32 kTick = 1000000;
  static constexpr u32 kPing = 1000001;
  static constexpr u32 kPong = 1000002;
  static constexpr u32 kStarted = 1000003;
  static constexpr u32 kClosed = 1000004;
  static constexpr u32 kTimedOut = 1000005;

  // The peers' types of a client that names none: all but the dispatcher's own.
  static bool IsNoTypeOfDispatcher(u32 type) { return type < kTick; }

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
  // can't be started.
  virtual bool AddClient(u32 id, MessageHandler handler, u32 threads, PeerTypes mayPeerSend = IsNoTypeOfDispatcher);
  // Sends by UDP; does nothing without a socket for it.
  virtual void Broadcast(rc_ptr<Message> message, u16 port);
  // Routes a message of this process itself, or of one of its timers.
  virtual void Post(rc_ptr<Message> message, bool fromTimer);
  // Routes a message of the peer at the other end of this channel. On the thread that receives from the channel.
  virtual void OnChannelMessage(rc_ptr<Message> message, MessageChannel* channel);
  // False without a channel or if the channel fails.
  virtual bool Send(const Address& address, rc_ptr<Message> message);
  // Posted once, from the thread that runs Run; lost if that ends first.
  virtual void PostDelayed(rc_ptr<Message> message, u32 seconds, u32 milliseconds);

  // Before Run: how long Run waits before it sends kStarted, a second unless this says otherwise. With 0 it is sent as
  // soon as Run listens and its threads run.
  void SetStartDelay(u32 delayMs) { startDelayMs_ = delayMs; }
  // 0 after a Stop, -1 after an error, which the error listeners were told.
  int Run();
  void Stop();
  // False if the IPC name can't be listened on: Run goes on without it. Valid once kStarted was sent.
  bool IsListening() const { return isListening_; }
  // Waits until no channel holds back messages for a client that is slow to read, at most limitMs. From any thread.
  void WaitUntilSent(u32 limitMs);
  // Closes all channels and what listens. After Run.
  void Close();

  // Empty if there is none, and for the empty address.
  rc_ptr<MessageChannel> FindChannel(const Address& address);
  // Begins to receive from it. An address that is in the table keeps its old channel.
  bool RegisterChannel(rc_ptr<MessageChannel> channel);
  // Closes it and tells the clients. False if it was not in the table.
  bool CloseChannel(rc_ptr<MessageChannel> channel);

  // The accept delegates; they take the socket. The address of an accepted connection is its channel's.
  bool OnNewSocketConnection(rc_ptr<TcpSocket> socket);
  bool OnNewIpcConnection(rc_ptr<IpcSocket> socket);

  // Before Run. Called with the text of a failure of the dispatcher, on any thread.
  void AddErrorListener(ErrorListener listener);
  // The same for failures of its reactor.
  void AddReactorErrorListener(ErrorListener listener);

 private:
  bool ListenOnSockets();
  bool ListenOnIpc();
  bool HasFreeSlot();
  rc_ptr<ServedIpcChannel> FindUnsent();
  bool StartAnnouncing(const rc_ptr<Thread>& init);
  void Announce();
  void AnnounceLater();
  void RunWaitLoop();
  void DropRefused(const Message& message, MessageChannel* channel);
  void Housekeep();
  void Expire(const Address& address, const rc_ptr<MessageChannel>& channel);
  void TellClients(u32 type, const Address& address);
  bool RemoveChannel(MessageChannel* channel, Address& address);
  void OnHandlerClosed(Reactor::EventHandler* handler);
  void ReportError(const std::string& text);
  void CloseListener();
  void StopAllActivity();
  bool StopClients();

  std::vector<ErrorListener> errorListeners_;  // constant while Run runs
  Reactor reactor_;
  SocketListener socketListener_;  // constant while Run runs
  const std::string ipcName_;
  rc_ptr<IpcAcceptor> ipcAcceptor_;  // constant while Run runs; null without a name
  bool isListening_ = false;         // constant once Run has begun to listen
  CriticalSection clientsLock_;
  std::vector<rc_ptr<Client>> clients_;  // guarded by clientsLock_
  CriticalSection channelsLock_;
  std::map<Address, rc_ptr<MessageChannel>> channels_;  // guarded by channelsLock_
  u32 startDelayMs_ = 1000;                             // constant while Run runs
  Condition ended_;                                     // ends the wait of "dispatcher init"
};

}  // namespace kestrun

#endif  // KESTRUN_MESSAGING_MESSAGE_DISPATCHER_H_
