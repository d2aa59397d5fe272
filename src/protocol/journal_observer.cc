#include "protocol/journal_observer.h"

#include <algorithm>

#include "platform/win32.h"
#include "protocol/message_reader.h"
#include "protocol/names.h"
#include "transport/shared/ipc_socket.h"

namespace kestrun {

namespace {

bool ReadNews(const rc_ptr<Message>& message, JournalNews& news) {
  if (message->GetType() != MSG_JOURNAL) return false;
  const MessageReader reader(message);
  if (reader.ReadString(SEG_REFUSAL, news.refusal)) return true;
  return DecodeState(reader.GetText(SEG_JOURNAL_STATE), news.state) &&
         DecodeRecords(reader.GetText(SEG_JOURNAL_JOBS), news.jobs);
}

}  // namespace

std::unique_ptr<JournalObserver> JournalObserver::Connect(const std::string& id, u32 timeoutMs) {
  const rc_ptr<IpcSocket> socket = new IpcSocket;
  if (!socket->Connect(GetListeningName(id), timeoutMs)) return nullptr;
  return std::unique_ptr<JournalObserver>(new JournalObserver(new IpcChannel(socket)));
}

bool JournalObserver::Ask(ObserveKind kind, u32 process) {
  rc_ptr<Message> message = new Message(MSG_OBSERVE, kStubService, kMasterService);
  message->AddU32(SEG_OBSERVE_KIND, kind).AddU32(SEG_OBSERVE_PROCESS, process);
  return channel_->Send(message);
}

JournalObserver::Outcome JournalObserver::Receive(u32 timeoutMs, JournalNews& news) {
  news = {};
  try {
    const u32 start = GetTickCount();
    for (u32 waitedMs = 0;; waitedMs = GetTickCount() - start) {
      const u32 leftMs = waitedMs < timeoutMs ? timeoutMs - waitedMs : 0;
      // With a limit of 0 Receive would poll until a message comes; only a limit above 0 lets it give up.
      const rc_ptr<Message> message = channel_->Receive(static_cast<int>(std::max(leftMs, u32{1})));
      if (message) return ReadNews(message, news) ? Outcome::kNews : Outcome::kGone;
      if (!channel_->IsConnected()) return Outcome::kGone;
      if (waitedMs >= timeoutMs) return Outcome::kNothing;
    }
  } catch (const SystemException&) {
    return Outcome::kGone;
  }
}

}  // namespace kestrun
