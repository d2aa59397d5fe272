#include "messaging/channel_factory.h"

#include <cstdio>
#include <string>

#include "messaging/ipc_channel.h"
#include "messaging/socket_channel.h"
#include "transport/sockets/socket.h"

namespace kestrun {

rc_ptr<MessageChannel> ChannelFactory::Connect(const Address& address, u32 timeoutMs) {
  if (address.GetKind() == Address::kIpc) return ConnectIpc(address.GetText(), timeoutMs);
  SocketAddress target;
  if (address.GetKind() != Address::kTcp || !address.GetSocketAddress(target)) return nullptr;
  return ConnectTcp(target, timeoutMs);
}

rc_ptr<MessageChannel> ChannelFactory::ConnectIpc(const std::string& name, u32 timeoutMs) {
  const rc_ptr<IpcSocket> socket(new IpcSocket());
  return socket->Connect(name, timeoutMs) ? new IpcChannel(socket) : nullptr;
}

rc_ptr<MessageChannel> ChannelFactory::ConnectTcp(const SocketAddress& address, u32 timeoutMs) {
  try {
    const rc_ptr<Socket> socket(new TcpSocket(address, timeoutMs));
    return new SocketChannel(socket, true);
  } catch (const SocketException& failure) {
    const std::string error = std::to_string(failure.GetCode());
    std::fprintf(stderr, "SocketException:%s error=%s\n", failure.what(), error.c_str());
    return nullptr;
  }
}

// Defined here and not with the base class; see the header.
rc_ptr<MessageChannel> MessageChannel::Create(const Address& address, u32 timeoutMs) {
  return ChannelFactory::Connect(address, timeoutMs);
}

}  // namespace kestrun
