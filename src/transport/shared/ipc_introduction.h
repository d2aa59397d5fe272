// How two ends meet: on the region of a name L, under which the listener waits for connectors, each connector is told
// the name of a private region that the listener has made for it.
//
// Only one connector at a time works on L, since it holds the mutex L.lck throughout. A connector that dies there
// leaves its bytes and its attachments behind. Two rules keep these from misleading the next connector:
//
//   - A connector empties both rings and writes its request in one step, under the locks of both rings.
//   - The listener writes its reply in one step under the same locks, and only if no other request has come since the
//     one that it answers. While it waits for the connector it gives up as soon as there is another request.
//
// So each reply that a connector reads is the answer to its own request. A connector always leaves a byte for the
// listener to take, which makes "another request has come" the same as "there is something to read". docs/protocol.md
// has the bytes.
//
// Threads: TryAccept, Accept and PrepareNext are called from one thread. Any other thread ends them by closing the
// region.
#ifndef KESTRUN_TRANSPORT_SHARED_IPC_INTRODUCTION_H_
#define KESTRUN_TRANSPORT_SHARED_IPC_INTRODUCTION_H_

#include <memory>
#include <string>

#include "runtime/base/types.h"
#include "runtime/threads/sync.h"
#include "transport/shared/ipc_region.h"

namespace kestrun {

class IpcIntroduction {
 public:
  // Bytes of a listening name, so that names of connections stay below 128.
  static constexpr size_t kMaxListeningName = 116;
  static bool IsListeningName(const std::string& name) { return name.size() <= kMaxListeningName; }

  // The mutex that a connector holds from before it opens L until Join is back.
  static std::string GetLockName(const std::string& name) { return name + ".lck"; }

  // The connector's part, on L, which `region` has opened: asks, leaves L and opens the private region instead. At most
  // timeoutMs for each of the two steps. False if the listener does not answer or its answer is of no use.
  static bool Join(IpcRegion& region, u32 timeoutMs);

  // The listener's part, on L, which `region` has created and which must outlive this. Throws SyncException.
  explicit IpcIntroduction(IpcRegion& region);

  // Serves the request that is there, which takes at most 5 s and ends when its connector dies. False, at once, if
  // there is no request. `connection` is the private region, joined by its connector, or null if the connector has gone
  // or failed.
  bool TryAccept(std::unique_ptr<IpcRegion>& connection);
  // Waits for a request while L is open, and serves it as TryAccept does. Null also if the lock of a ring timed out.
  std::unique_ptr<IpcRegion> Accept();

  // Makes the private region for the next connector in advance, so that the connector does not wait for that.
  void PrepareNext();

 private:
  bool ReadRequest(u32 timeoutMs, bool& isValid);
  std::unique_ptr<IpcRegion> ServeRequests();
  std::unique_ptr<IpcRegion> ServeRequest();
  std::unique_ptr<IpcRegion> MakeNext();
  bool SendReply(const std::string& connectionName);
  bool HasNewerRequest() { return region_.IsOpen() && region_.GetAvailable() > 0; }
  bool IsConnectorGone();

  IpcRegion& region_;
  Condition changed_;  // L.chg
  Mutex connectLock_;  // L.lck
  u32 connectionCounter_;
  std::unique_ptr<IpcRegion> next_;  // null while none is prepared
};

}  // namespace kestrun

#endif  // KESTRUN_TRANSPORT_SHARED_IPC_INTRODUCTION_H_
