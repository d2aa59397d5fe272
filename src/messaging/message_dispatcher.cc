#include "messaging/message_dispatcher.h"

#include <algorithm>
#include <cstddef>
#include <ctime>
#include <utility>

#include "messaging/ipc_acceptor.h"
#include "messaging/served_ipc_channel.h"
#include "messaging/socket_channel.h"
#include "messaging/timer.h"
#include "runtime/files/log.h"
#include "transport/sockets/socket.h"

namespace kestrun {

namespace {

constexpr int kLoopTimeoutMs = 1000;
constexpr u32 kTickSeconds = 10;
// A channel over a network may be dead without an error: after this silence it is asked, and after the next it is
// closed.
constexpr std::int64_t kPingAfterSeconds = 25;
constexpr std::int64_t kExpireAfterSeconds = 50;

rc_ptr<Message> NewMessage(u32 type) {
  return new Message(type, 0, 0);
}

void LogClient(u32 id, const char* text) {
  WriteLog(Log::Info, static_cast<int>(id), text);
}

}  // namespace

MessageDispatcher::MessageDispatcher(const std::string& host, u16 port, const std::string& ipcName)
    : reactor_(0), socketListener_(host, port), ipcName_(ipcName) {}

MessageDispatcher::~MessageDispatcher() {
  Close();
}

bool MessageDispatcher::AddClient(u32 id, MessageHandler handler, u32 threads, PeerTypes mayPeerSend) {
  const rc_ptr<Client> client(new Client(id, std::move(handler), threads, mayPeerSend));
  if (!client->HasThreads()) return false;
  const Lock lock(clientsLock_);
  clients_.push_back(client);
  return true;
}

void MessageDispatcher::AddErrorListener(ErrorListener listener) {
  errorListeners_.push_back(std::move(listener));
}

void MessageDispatcher::AddReactorErrorListener(ErrorListener listener) {
  reactor_.AddErrorListener(listener.Get());
}

void MessageDispatcher::ReportError(const std::string& text) {
  for (const auto& listener : errorListeners_) listener(text);
}

// Run and Close
// ----------------------------------------------------------------------------------------------------------------

int MessageDispatcher::Run() {
  if (!ListenOnSockets() || !ListenOnIpc()) return -1;
  reactor_.AddCloseListener(MakeDelegate(&MessageDispatcher::OnHandlerClosed, this));
  const rc_ptr<Thread> waitLoop(new Thread("Wait loop"));
  const rc_ptr<Thread> init(new Thread("dispatcher init"));
  const bool hasThreads = waitLoop->Start(MakeDelegate(&MessageDispatcher::RunWaitLoop, this)) && StartAnnouncing(init);
  if (!hasThreads) {
    ReportError("Could not start the threads of the dispatcher");
    reactor_.Stop();
  }
  // The order of the end: both loops, the listener, the threads that use them, and the clients' handlers last.
  const bool isStopped = reactor_.RunSelectLoop(kLoopTimeoutMs);
  reactor_.Stop();
  ended_.Signal();
  CloseListener();
  waitLoop->Wait(kNoLimit);
  init->Wait(kNoLimit);
  StopAllActivity();
  return isStopped && hasThreads ? 0 : -1;
}

void MessageDispatcher::Stop() {
  reactor_.Stop();
}

bool MessageDispatcher::ListenOnSockets() {
  try {
    socketListener_.Open(MakeDelegate(&MessageDispatcher::OnNewSocketConnection, this));
  } catch (const SocketException& failure) {
    ReportError("Failed to open listening TCP port " + std::to_string(socketListener_.GetPort()) +
                " error=" + std::to_string(failure.GetCode()) + "\n");
    return false;
  }
  if (!socketListener_.GetAcceptor()) return true;
  if (!reactor_.Register(socketListener_.GetAcceptor().Get())) {
    ReportError("Could not register SocketAcceptor");
    return false;
  }
  if (RegisterChannel(socketListener_.GetDatagramChannel())) return true;
  ReportError("Could not register datagram channel");
  return false;
}

bool MessageDispatcher::ListenOnIpc() {
  if (ipcName_.empty()) return true;
  ipcAcceptor_ = new IpcAcceptor(ipcName_, MakeDelegate(&MessageDispatcher::OnNewIpcConnection, this),
                                 MakeDelegate(&MessageDispatcher::HasFreeSlot, this));
  isListening_ = ipcAcceptor_->IsListening();
  if (reactor_.Register(ipcAcceptor_.Get())) return true;
  ReportError("Could not register IpcAcceptor");
  return false;
}

// There can be more connections than admitted clients, because a client may leave, and the next one connect, before the
// end of the first one's channel is noticed. When all places of the wait are taken, a connection that has sent nothing
// yet is evicted.
bool MessageDispatcher::HasFreeSlot() {
  static_assert(kMaxIpcChannels == MAXIMUM_WAIT_OBJECTS - 2);
  const Lock lock(channelsLock_);
  const auto count = std::count_if(channels_.begin(), channels_.end(), [](const auto& entry) {
    return entry.second->GetHandleType() == Reactor::kWaitable;
  });
  if (count < std::ptrdiff_t{kMaxIpcChannels}) return true;
  // One at a time: the next pass of the loop, at most a second from now, finds the place free.
  for (const auto& entry : channels_) {
    auto* const channel = dynamic_cast<ServedIpcChannel*>(entry.second.Get());
    if (channel != nullptr && channel->EvictIfSilent()) break;
  }
  return false;
}

void MessageDispatcher::RunWaitLoop() {
  reactor_.RunWaitLoop(kLoopTimeoutMs);
}

// Connections are accepted as soon as the listener is registered, so clients need not wait for this announcement.
bool MessageDispatcher::StartAnnouncing(const rc_ptr<Thread>& init) {
  if (startDelayMs_ != 0) return init->Start(MakeDelegate(&MessageDispatcher::AnnounceLater, this));
  Announce();
  return true;
}

void MessageDispatcher::AnnounceLater() {
  if (!ended_.Wait(startDelayMs_)) Announce();
}

void MessageDispatcher::Announce() {
  TellClients(kStarted, Address());
  PostDelayed(NewMessage(kTick), kTickSeconds, 0);
}

rc_ptr<ServedIpcChannel> MessageDispatcher::FindUnsent() {
  std::vector<rc_ptr<MessageChannel>> channels;
  {
    const Lock lock(channelsLock_);
    for (const auto& entry : channels_) channels.push_back(entry.second);
  }
  for (const auto& channel : channels) {
    auto* const served = dynamic_cast<ServedIpcChannel*>(channel.Get());
    if (served != nullptr && served->HasUnsent()) return served;
  }
  return nullptr;
}

void MessageDispatcher::WaitUntilSent(u32 limitMs) {
  const u32 start = GetTickCount();
  while (const rc_ptr<ServedIpcChannel> channel = FindUnsent()) {
    const u32 elapsedMs = GetTickCount() - start;
    if (elapsedMs >= limitMs) return;
    channel->AwaitSent(limitMs - elapsedMs);
  }
}

void MessageDispatcher::StopAllActivity() {
  bool isOk = StopClients();
  if (!reactor_.StopThreadPool()) isOk = false;
  if (isOk) return;
  WriteLog(Log::Error, Log::SERVER, "Exiting process early", {{"reason", "MessageDispatcher::StopAllActivity failed"}});
  // A handler that does not return would use members that are being destroyed.
  ExitProcess(1);
}

// Closing the listener ends an introduction that is under way, which the wait loop would otherwise wait for.
void MessageDispatcher::CloseListener() {
  if (!ipcAcceptor_) return;
  reactor_.Unregister(ipcAcceptor_.Get());
  ipcAcceptor_->Close();
}

bool MessageDispatcher::StopClients() {
  bool isOk = true;
  for (;;) {
    rc_ptr<Client> client;
    {
      const Lock lock(clientsLock_);
      if (clients_.empty()) return isOk;
      client = clients_.back();
      clients_.pop_back();
    }
    LogClient(client->GetId(), "Starting message dispatcher client close");
    if (client->Stop()) {
      LogClient(client->GetId(), "Completed message dispatcher client close");
    } else {
      LogClient(client->GetId(), "Failed message dispatcher client close");
      // A handler of this client still runs, so the client must never be destroyed: the reference is not given back.
      client->AddRef();
      isOk = false;
    }
  }
}

void MessageDispatcher::Close() {
  socketListener_.Close();
  if (ipcAcceptor_) ipcAcceptor_->Close();
  ipcAcceptor_.Reset();
  {
    const Lock lock(channelsLock_);
    for (const auto& entry : channels_) entry.second->Close();
    channels_.clear();
  }
  reactor_.Shutdown();
}

// Messages ------------------------------------------------------------------------------------------------------------

void MessageDispatcher::OnChannelMessage(rc_ptr<Message> message, MessageChannel* channel) {
  const u32 type = message->GetType();
  if (type == kPing) Send(message->GetAddress(), NewMessage(kPong));
  // Answered or dropped here; clients never see them.
  if (type == kPing || type == kPong) return;
  bool isRefused = !IsNoTypeOfDispatcher(type);
  if (!isRefused) {
    const Lock lock(clientsLock_);
    for (const auto& client : clients_) {
      if (!client->IsReceiverOf(*message)) continue;
      if (client->MayPeerSend(type)) {
        client->Enqueue(message);
      } else {
        isRefused = true;
      }
    }
  }
  if (isRefused) DropRefused(*message, channel);
}

void MessageDispatcher::DropRefused(const Message& message, MessageChannel* channel) {
  if (channel == nullptr || !channel->NoteRefusal()) return;
  WriteLog(Log::Warning, Log::SERVER, "Message of a type that a peer may not send",
           {{"type", std::to_string(message.GetType())}, {"address", message.GetAddress().ToString()}});
}

void MessageDispatcher::Post(rc_ptr<Message> message, bool) {
  if (message->GetType() == kTick) {
    Housekeep();
    return;
  }
  const Lock lock(clientsLock_);
  for (const auto& client : clients_) {
    if (client->IsReceiverOf(*message)) client->Enqueue(message);
  }
}

void MessageDispatcher::PostDelayed(rc_ptr<Message> message, u32 seconds, u32 milliseconds) {
  const rc_ptr<Timer> timer(new Timer(MakeClosure(MakeDelegate(&MessageDispatcher::Post, this), message, true)));
  reactor_.AddTimeout(timer.Get(), seconds * 1000 + milliseconds);
}

bool MessageDispatcher::Send(const Address& address, rc_ptr<Message> message) {
  const rc_ptr<MessageChannel> channel = FindChannel(address);
  return channel && channel->Send(std::move(message));
}

void MessageDispatcher::Broadcast(rc_ptr<Message> message, u16 port) {
  const rc_ptr<MessageChannel>& channel = socketListener_.GetDatagramChannel();
  if (channel) channel->Broadcast(std::move(message), port);
}

void MessageDispatcher::TellClients(u32 type, const Address& address) {
  const Lock lock(clientsLock_);
  for (const auto& client : clients_) client->Enqueue(new Message(address, type, 0, 0));
}

// Channels ------------------------------------------------------------------------------------------------------------

bool MessageDispatcher::OnNewSocketConnection(rc_ptr<TcpSocket> socket) {
  if (!socket) return false;
  if (RegisterChannel(new SocketChannel(socket, false))) return true;
  ReportError("Could not register SocketChannel in OnNewSocketConnection()");
  return false;
}

bool MessageDispatcher::OnNewIpcConnection(rc_ptr<IpcSocket> socket) {
  if (!socket) return false;
  if (RegisterChannel(new ServedIpcChannel(socket))) return true;
  ReportError("Could not register IpcChannel in OnNewIpcConnection()");
  return false;
}

// The channel is in the table before its first message can come, so that the handler of that message finds it.
bool MessageDispatcher::RegisterChannel(rc_ptr<MessageChannel> channel) {
  if (!channel) return false;
  const Address address = channel->GetAddress();
  bool isInserted;
  {
    const Lock lock(channelsLock_);
    isInserted = channels_.emplace(address, channel).second;
  }
  if (channel->Register(&reactor_, MakeDelegate(&MessageDispatcher::OnChannelMessage, this))) return true;
  if (isInserted) {
    const Lock lock(channelsLock_);
    channels_.erase(address);
  }
  ReportError("Could not put MessageChannel into receive mode!");
  return false;
}

rc_ptr<MessageChannel> MessageDispatcher::FindChannel(const Address& address) {
  // Messages of this process have no address.
  if (address == Address()) return nullptr;
  const Lock lock(channelsLock_);
  const auto found = channels_.find(address);
  return found != channels_.end() ? found->second : nullptr;
}

bool MessageDispatcher::CloseChannel(rc_ptr<MessageChannel> channel) {
  if (!channel) return false;
  reactor_.Unregister(channel.Get());
  channel->Close();
  Address address;
  if (!RemoveChannel(channel.Get(), address)) return false;
  TellClients(kClosed, address);
  return true;
}

void MessageDispatcher::OnHandlerClosed(Reactor::EventHandler* handler) {
  auto* channel = dynamic_cast<MessageChannel*>(handler);
  Address address;
  if (channel != nullptr && RemoveChannel(channel, address)) TellClients(kClosed, address);
  // In a build the next client comes soon after this one has gone; until then the wait loop has time to prepare its
  // region.
  if (handler->GetHandleType() == Reactor::kWaitable && ipcAcceptor_) ipcAcceptor_->Prepare();
}

// Looked up by the channel and not by its address, because that of a datagram channel changes.
bool MessageDispatcher::RemoveChannel(MessageChannel* channel, Address& address) {
  const Lock lock(channelsLock_);
  for (auto entry = channels_.begin(); entry != channels_.end(); ++entry) {
    if (entry->second.Get() != channel) continue;
    address = entry->first;
    channels_.erase(entry);
    return true;
  }
  return false;
}

void MessageDispatcher::Housekeep() {
  const std::int64_t now = std::time(nullptr);
  std::vector<std::pair<Address, rc_ptr<MessageChannel>>> expired;
  std::vector<rc_ptr<MessageChannel>> idle;
  {
    const Lock lock(channelsLock_);
    for (const auto& [address, channel] : channels_) {
      const std::int64_t last = channel->GetLastActivity();
      if (last < now - kExpireAfterSeconds) {
        expired.emplace_back(address, channel);
      } else if (last < now - kPingAfterSeconds) {
        idle.push_back(channel);
      }
    }
  }
  // Outside the lock: a send may wait for the peer.
  for (const auto& channel : idle) channel->Send(NewMessage(kPing));
  for (const auto& [address, channel] : expired) Expire(address, channel);
  PostDelayed(NewMessage(kTick), kTickSeconds, 0);
}

// Removed from the table before it is closed, so that OnHandlerClosed does not report its end a second time.
void MessageDispatcher::Expire(const Address& address, const rc_ptr<MessageChannel>& channel) {
  TellClients(kTimedOut, address);
  Address ignored;
  RemoveChannel(channel.Get(), ignored);
  reactor_.Unregister(channel.Get());
  channel->Close();
}

}  // namespace kestrun
