#include "messaging/message_dispatcher.h"

namespace kestrun {

namespace {

constexpr u32 kStopLimitMs = 60000;

}  // namespace

MessageDispatcher::Client::Client(u32 id, MessageHandler handler, u32 threads)
    : id_(id), handler_(std::move(handler)), pool_("MessageDispatcher::Client"), hasThreads_(pool_.Start(threads)) {}

MessageDispatcher::Client::~Client() {
  Stop();
}

void MessageDispatcher::Client::Enqueue(const rc_ptr<Message>& message) {
  pool_.Queue(MakeClosure(handler_.Get(), message), false);
}

bool MessageDispatcher::Client::Stop() {
  return pool_.Stop(kStopLimitMs);
}

// Not registered by the constructor: the reactor may fire and let go of it before the constructor is done.
void MessageDispatcher::MessageTimer::Start(const rc_ptr<Message>& message, MessageDispatcher* dispatcher, u32 seconds,
                                            u32 milliseconds) {
  const rc_ptr<MessageTimer> timer(new MessageTimer(message, dispatcher));
  dispatcher->reactor_.AddTimeout(timer.Get(), seconds * 1000 + milliseconds);
}

MessageDispatcher::MessageTimer::MessageTimer(const rc_ptr<Message>& message, MessageDispatcher* dispatcher)
    : Timer(MakeClosure(MakeDelegate(&MessageDispatcher::Post, dispatcher), message, true)) {}

}  // namespace kestrun
