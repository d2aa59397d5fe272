// A message channel over shared memory, at the client's end; ServedIpcChannel is the master's.
//
// Owns the socket. Its last activity is always now, so it never counts as idle. Threads and failures are those of
// MessageChannel.
#ifndef KESTRUN_MESSAGING_IPC_CHANNEL_H_
#define KESTRUN_MESSAGING_IPC_CHANNEL_H_

#include <atomic>

#include "messaging/message_channel.h"
#include "runtime/base/rc_ptr.h"
#include "transport/shared/ipc_socket.h"

namespace kestrun {

class IpcChannel : public MessageChannel {
 public:
  // The socket is connected already. The channel closes it.
  explicit IpcChannel(rc_ptr<IpcSocket> socket);
  ~IpcChannel() override;

  int GetHandle() override { return socket_->GetWaitHandle(); }
  int GetHandleType() override { return 1; }
  void Close() override;
  bool IsClosed() override { return isClosed_; }
  bool Connect(const Address& address, u32 timeoutMs) override;
  Address GetAddress() override;
  bool IsDatagram() override { return false; }
  std::int64_t GetLastActivity() override;
  bool ReadInto(MemoryStream& buffer, int timeoutMs) override;
  // False once the peer has gone, even if bytes that it sent are still to be read.
  bool IsConnected() const { return socket_->IsConnected(); }

 protected:
  const rc_ptr<IpcSocket> socket_;

 private:
  // Not the state of the socket, which also counts as closed when the peer is gone and there is more to be read.
  std::atomic<bool> isClosed_{false};
};

}  // namespace kestrun

#endif  // KESTRUN_MESSAGING_IPC_CHANNEL_H_
