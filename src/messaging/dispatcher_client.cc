#include "messaging/dispatcher_client.h"

#include <utility>

namespace kestrun {

namespace {

constexpr u32 kStopLimitMs = 60000;

}  // namespace

DispatcherClient::DispatcherClient(u32 id, Handler handler, u32 threads, PeerTypes mayPeerSend)
    : id_(id),
      handler_(std::move(handler)),
      mayPeerSend_(mayPeerSend),
      pool_("MessageDispatcher::Client"),
      // Started last: a worker may run as soon as it exists.
      hasThreads_(pool_.Start(threads)) {}

DispatcherClient::~DispatcherClient() {
  Stop();
}

void DispatcherClient::Enqueue(const rc_ptr<Message>& message) {
  pool_.Queue(MakeClosure(handler_.Get(), message), false);
}

bool DispatcherClient::Stop() {
  return pool_.Stop(kStopLimitMs);
}

}  // namespace kestrun
