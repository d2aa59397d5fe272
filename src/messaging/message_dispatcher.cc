#include "messaging/message_dispatcher.h"

#include <algorithm>
#include <cstddef>
#include <ctime>
#include <utility>

#include "messaging/ipc_acceptor.h"
#include "messaging/served_ipc_channel.h"
#include "runtime/log.h"
#include "runtime/thread.h"

namespace kestrun {

namespace {

constexpr int kLoopTimeoutMs = 1000;
// How long Run has to reach its loops before the clients are told that the dispatcher runs.
constexpr u32 kStartDelayMs = 1000;
constexpr u32 kTickSeconds = 10;
constexpr std::int64_t kPingAfterSeconds = 25;
constexpr std::int64_t kExpireAfterSeconds = 50;

rc_ptr<Message> NewMessage(u32 type) {
  return new Message(type, 0, 0);
}

void LogClient(u32 id, const char* text) {
  if (Log* log = Log::Get()) log->Write(Log::Info, static_cast<int>(id), text);
}

}  // namespace

MessageDispatcher::MessageDispatcher(const std::string& host, u16 port, const std::string& ipcName)
    : reactor_(0), host_(host), port_(port), ipcName_(ipcName) {}

MessageDispatcher::~MessageDispatcher() {
  Close();
}

bool MessageDispatcher::AddClient(u32 id, MessageHandler handler, u32 threads) {
  const rc_ptr<Client> client(new Client(id, std::move(handler), threads));
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

// Life ----------------------------------------------------------------------------------------------------------------

int MessageDispatcher::Run() {
  if (!OpenSocketRoad() || !OpenIpcRoad()) return -1;
  reactor_.AddCloseListener(MakeDelegate(&MessageDispatcher::OnHandlerClosed, this));
  const rc_ptr<Thread> waitLoop(new Thread("Wait loop"));
  const rc_ptr<Thread> init(new Thread("dispatcher init"));
  const bool hasThreads = waitLoop->Start(MakeDelegate(&MessageDispatcher::RunWaitLoop, this)) &&
                          init->Start(MakeDelegate(&MessageDispatcher::Announce, this));
  if (!hasThreads) {
    ReportError("Could not start the threads of the dispatcher");
    reactor_.Stop();
  }
  const bool isStopped = reactor_.RunSelectLoop(kLoopTimeoutMs);
  reactor_.Stop();
  ended_.Signal();
  waitLoop->Wait(kNoLimit);
  init->Wait(kNoLimit);
  StopAllActivity();
  return isStopped && hasThreads ? 0 : -1;
}

void MessageDispatcher::Stop() {
  reactor_.Stop();
}

bool MessageDispatcher::OpenIpcRoad() {
  if (ipcName_.empty()) return true;
  ipcAcceptor_ = new IpcAcceptor(ipcName_, MakeDelegate(&MessageDispatcher::OnNewIpcConnection, this),
                                 MakeDelegate(&MessageDispatcher::HasRoom, this));
  isListening_ = ipcAcceptor_->IsListening();
  if (reactor_.Register(ipcAcceptor_.Get())) return true;
  ReportError("Could not register IpcAcceptor");
  return false;
}

// A client may give its place to the next one before its own channel is seen to have ended. Whoever holds a place and
// says nothing keeps it only while there are others.
bool MessageDispatcher::HasRoom() {
  static_assert(kMaxIpcChannels == MAXIMUM_WAIT_OBJECTS - 2);
  const Lock lock(channelsLock_);
  const auto count = std::count_if(channels_.begin(), channels_.end(), [](const auto& entry) {
    return entry.second->GetHandleType() == Reactor::kWaitable;
  });
  if (count < std::ptrdiff_t{kMaxIpcChannels}) return true;
  // One at a time; the next pass, a second from now at most, sees its place free.
  for (const auto& entry : channels_) {
    auto* const channel = dynamic_cast<ServedIpcChannel*>(entry.second.Get());
    if (channel != nullptr && channel->GiveWay()) break;
  }
  return false;
}

void MessageDispatcher::RunWaitLoop() {
  reactor_.RunWaitLoop(kLoopTimeoutMs);
}

void MessageDispatcher::Announce() {
  if (ended_.Wait(kStartDelayMs)) return;
  TellClients(kStarted, Address());
  PostDelayed(NewMessage(kTick), kTickSeconds, 0);
}

void MessageDispatcher::StopAllActivity() {
  bool isOk = StopClients();
  if (!reactor_.StopThreadPool()) isOk = false;
  if (isOk) return;
  if (Log* log = Log::Get()) {
    log->Write(Log::Error, Log::SERVER, "Exiting process early",
               {{"reason", "MessageDispatcher::StopAllActivity failed"}});
  }
  ExitProcess(1);
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
      // Its handler still runs, so it is never destroyed.
      client->AddRef();
      isOk = false;
    }
  }
}

void MessageDispatcher::Close() {
  if (socketAcceptor_) socketAcceptor_->Close();
  socketAcceptor_.Reset();
  if (datagramChannel_) datagramChannel_->Close();
  datagramChannel_.Reset();
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

void MessageDispatcher::OnChannelMessage(rc_ptr<Message> message, MessageChannel*) {
  Post(std::move(message), false);
}

void MessageDispatcher::Post(rc_ptr<Message> message, bool) {
  switch (message->GetType()) {
    case kTick:
      Housekeep();
      return;
    case kPing:
      Send(message->GetAddress(), NewMessage(kPong));
      return;
    case kPong:
      return;
    default:
      break;
  }
  const u32 destination = message->GetDestination();
  const Lock lock(clientsLock_);
  for (const auto& client : clients_) {
    if (client->GetId() == 0 || client->GetId() == destination) client->Enqueue(message);
  }
}

void MessageDispatcher::PostDelayed(rc_ptr<Message> message, u32 seconds, u32 milliseconds) {
  MessageTimer::Start(message, this, seconds, milliseconds);
}

bool MessageDispatcher::Send(const Address& address, rc_ptr<Message> message) {
  const rc_ptr<MessageChannel> channel = FindChannel(address);
  return channel && channel->Send(std::move(message));
}

void MessageDispatcher::Broadcast(rc_ptr<Message> message, u16 port) {
  if (datagramChannel_) datagramChannel_->Broadcast(std::move(message), port);
}

void MessageDispatcher::TellClients(u32 type, const Address& address) {
  const Lock lock(clientsLock_);
  for (const auto& client : clients_) client->Enqueue(new Message(address, type, 0, 0));
}

// Channels ------------------------------------------------------------------------------------------------------------

bool MessageDispatcher::OnNewIpcConnection(IpcSocket* socket) {
  if (socket == nullptr) return false;
  if (RegisterChannel(new ServedIpcChannel(socket))) return true;
  ReportError("Could not register IpcChannel in OnNewIpcConnection()");
  return false;
}

// The table has the channel before its first message can come, so that a handler finds it.
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
  // The wait loop has a moment now: in a build the next client comes soon after the end of this one.
  if (handler->GetHandleType() == Reactor::kWaitable && ipcAcceptor_) ipcAcceptor_->Prepare();
}

// By the channel and not by its address: a datagram channel's changes.
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
  for (const auto& channel : idle) channel->Send(NewMessage(kPing));
  for (const auto& [address, channel] : expired) Expire(address, channel);
  PostDelayed(NewMessage(kTick), kTickSeconds, 0);
}

// Out of the table before it is closed, so that its end is not told a second time.
void MessageDispatcher::Expire(const Address& address, const rc_ptr<MessageChannel>& channel) {
  TellClients(kTimedOut, address);
  Address ignored;
  RemoveChannel(channel.Get(), ignored);
  reactor_.Unregister(channel.Get());
  channel->Close();
}

}  // namespace kestrun
