// The object behind a SOCKET number.
#ifndef KESTRUN_PLATFORM_LINUX_SOCKETS_SOCKET_OBJECT_H_
#define KESTRUN_PLATFORM_LINUX_SOCKETS_SOCKET_OBJECT_H_

#include <atomic>
#include <memory>
#include <utility>

#include "platform/api/socket_api.h"
#include "platform/linux/base/file_descriptor.h"
#include "platform/linux/base/object.h"

namespace kestrun::platform {

// The descriptor stays open until the last call that uses it has returned, so that its number can't come to mean
// another file in the middle of a call. closesocket ends such calls: it shuts the descriptor down, which wakes them,
// and they see IsClosed. Any thread may call anything.
class SocketObject : public Object {
 public:
  explicit SocketObject(FileDescriptor descriptor, bool isStream)
      : Object(ObjectKind::kOther), descriptor_(std::move(descriptor)), isStream_(isStream) {}

  int Descriptor() const { return descriptor_.get(); }
  bool IsStream() const { return isStream_; }
  // Acquire pairs with the release in LastHandleClosed: a call that the shutdown has woken sees that the socket is
  // closed.
  bool IsClosed() const { return isClosed_.load(std::memory_order_acquire); }

  // True while a connection attempt is under way; until it has succeeded the socket does not count as writable.
  // Relaxed, here and for the next flag: they guard no other data.
  bool IsConnecting() const { return isConnecting_.load(std::memory_order_relaxed); }
  void SetConnecting(bool connecting) { isConnecting_.store(connecting, std::memory_order_relaxed); }

  // Relaxed: see IsConnecting.
  bool IsSendShutDown() const { return isSendShutDown_.load(std::memory_order_relaxed); }
  void SetSendShutDown() { isSendShutDown_.store(true, std::memory_order_relaxed); }

  // Release: see IsClosed.
  void LastHandleClosed() override { isClosed_.store(true, std::memory_order_release); }

 private:
  const FileDescriptor descriptor_;
  const bool isStream_;
  std::atomic<bool> isClosed_{false};
  std::atomic<bool> isConnecting_{false};
  std::atomic<bool> isSendShutDown_{false};
};

// Null with WSAENOTSOCK.
std::shared_ptr<SocketObject> LookUpSocket(SOCKET socket);

// The Winsock number for an errno value.
int WinsockErrorFromErrno(int error);

// Ends a call on `object` that failed with errno: sets the last error (WSAEINTR if the socket was closed under the
// call) and gives SOCKET_ERROR.
int FailFromErrno(const SocketObject& object);

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_SOCKETS_SOCKET_OBJECT_H_
