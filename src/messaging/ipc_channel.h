// A message channel over shared memory. Its last activity is always now, so it never counts as idle.
#ifndef KESTRUN_MESSAGING_IPC_CHANNEL_H_
#define KESTRUN_MESSAGING_IPC_CHANNEL_H_

#include "messaging/message_channel.h"
#include "runtime/rc_ptr.h"
#include "transport/ipc_socket.h"

namespace kestrun {

class IpcChannel : public MessageChannel {
 public:
  // The socket is connected already. The channel closes it.
  explicit IpcChannel(rc_ptr<IpcSocket> socket);
  ~IpcChannel() override;

  int GetHandle() override { return socket_->GetWaitHandle(); }
  int GetHandleType() override { return 1; }
  void Close() override { socket_->Close(); }
  bool Connect(const Address& address, u32 timeoutMs) override;
  Address GetAddress() override;
  bool IsDatagram() override { return false; }
  std::int64_t GetLastActivity() override;
  bool ReadInto(MemoryStream& buffer, int timeoutMs) override;

 protected:
  const rc_ptr<IpcSocket> socket_;
};

}  // namespace kestrun

#endif  // KESTRUN_MESSAGING_IPC_CHANNEL_H_
