// Makes the channel that fits an address. A class of its own, so that MessageChannel depends on none of the classes
// derived from it.
//
// Holds nothing; any thread may call it. The channel belongs to the caller.
#ifndef KESTRUN_MESSAGING_CHANNEL_FACTORY_H_
#define KESTRUN_MESSAGING_CHANNEL_FACTORY_H_

#include <string>

#include "messaging/message_channel.h"
#include "runtime/base/rc_ptr.h"
#include "runtime/base/types.h"
#include "transport/sockets/address.h"

namespace kestrun {

class ChannelFactory {
 public:
  // Connects to an ipc or tcp address. Empty if that fails; for tcp the reason is written to the standard error stream.
  static rc_ptr<MessageChannel> Connect(const Address& address, u32 timeoutMs);

 private:
  static rc_ptr<MessageChannel> ConnectIpc(const std::string& name, u32 timeoutMs);
  static rc_ptr<MessageChannel> ConnectTcp(const SocketAddress& address, u32 timeoutMs);
};

}  // namespace kestrun

#endif  // KESTRUN_MESSAGING_CHANNEL_FACTORY_H_
