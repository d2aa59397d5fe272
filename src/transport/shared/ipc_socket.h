// A byte stream in each direction between two processes of one machine, over two rings in shared memory, with a listen,
// accept and connect model.
//
// A listener owns a region under a well-known name and uses it for introductions only (ipc_introduction.h): each
// connector is told there the name of a private region (ipc_region.h), on which the two ends talk from then on.
// docs/protocol.md has the bytes.
//
// Counted: held by rc_ptr. Owns all its handles and its mapping.
//
// Threads: one reader, and writers one at a time, for which StreamAdapter and the channels have locks. Reader and
// writer may be two threads, and neither waits for the other. Close may be called from any thread at any time, and ends
// calls that are blocked in Read, Write or Accept.
//
//   state       entered by                                             left by
//   closed      construction; Close; a read, a write or a wait handle  Listen, Connect
//               request that finds the peer gone
//   listening   Listen                                                 Close
//   connecting  Connect, while it is on the listener's region          end of Connect
//   connected   Connect; Accept makes sockets in this state            Close, peer gone
//   failed      Connect that reached the listener and failed           Close
//
// How an end learns that the other one has gone:
//
//   the peer            what changes                             seen by
//   closes              attach count, generation; both woken     the next read or write, a blocked one at once
//   dies while attached handle count of the ring's events is 1   GetWaitHandle; a blocked reader or writer once a
//   second
//
// An accepting end also treats a peer as gone that keeps the lock of a ring for 5 s, and never waits for that lock in
// Read.
//
// Bytes that the peer wrote before it went are still delivered; only then does the socket count as no longer connected.
//
// Listen, Connect and Accept report failure by their result; a kernel object that can't be opened or made is a
// SyncException.
#ifndef KESTRUN_TRANSPORT_SHARED_IPC_SOCKET_H_
#define KESTRUN_TRANSPORT_SHARED_IPC_SOCKET_H_

#include <atomic>
#include <memory>
#include <string>

#include "runtime/base/critical_section.h"
#include "runtime/base/rc_ptr.h"
#include "runtime/base/types.h"
#include "runtime/files/stream.h"
#include "transport/shared/ipc_introduction.h"
#include "transport/shared/ipc_region.h"

namespace kestrun {

class IpcSocket : public rc_base {
 public:
  class StreamAdapter;  // ipc_stream_adapter.h

  enum class State : int { kClosed = 0, kListening = 1, kConnecting = 2, kConnected = 3, kFailed = 4 };

  struct Result {
    u32 count = 0;
    bool isConnected = false;
  };

  static constexpr size_t kMaxListeningName = IpcIntroduction::kMaxListeningName;

  IpcSocket();
  ~IpcSocket() override;

  // False if the name is in use or too long.
  bool Listen(const std::string& name);

  // Serves the request that is there, which takes at most 5 s and ends when its connector dies. False, at once, if
  // there is no request. `connection` is a new connected socket, or empty if the connector has gone or failed.
  bool TryAccept(rc_ptr<IpcSocket>& connection);
  // Waits for a request for as long as the socket listens, and serves it as TryAccept does. Empty also if the lock of a
  // ring timed out.
  rc_ptr<IpcSocket> Accept();

  // Makes what the next connection needs in advance, so that its connector does not wait for that; otherwise Accept
  // makes it. To be called from the thread that accepts.
  void PrepareNext();

  // Waits while other connectors are being introduced, for each of them at most timeoutMs, and then at most timeoutMs
  // for the listener's answer. False if no socket listens on the name (the state stays as it was) or the introduction
  // failed (state failed).
  bool Connect(const std::string& name, u32 timeoutMs);
  // After a Connect that has failed because another process keeps its turn: a text for the user that names the process.
  // Empty otherwise. To be called from the thread that connects.
  const std::string& GetObstacle() const { return obstacle_; }

  void Close();

  // Returns as soon as something has come, and does not gather length bytes. The wait goes in slices of 1000 ms, as
  // many as fit into timeoutMs (one of timeoutMs if none does); kNoLimit waits until bytes come or the peer goes.
  Result Read(void* target, u32 length, u32 timeoutMs);

  // timeoutMs limits each wait for room. A short count with isConnected true means a full ring and a live peer.
  Result Write(const void* source, u32 length, u32 timeoutMs);

  // The handle for a Reactor to wait on, -1 if there is none. Each call also checks whether the peer has died, and then
  // makes the handle ready; a listener repairs the headers of its region. Throws SocketException if the ring has no
  // event.
  int GetWaitHandle();

  // Makes that handle ready: for a reader that leaves bytes behind.
  void SignalReader() { region_->WakeReader(); }

  // Bytes that can be read without a wait.
  u32 GetAvailable() { return region_->GetAvailable(); }
  // Bytes that can be written without a wait. Waits for a writer that is under way.
  u32 GetRoom() { return region_->GetRoom(); }
  // Treats the peer as gone: the next read, write or wait handle request finds it so.
  void DropPeer() { LosePeer(); }
  const std::string& GetName() const { return region_->GetName(); }
  State GetState() const { return state_.load(); }
  bool IsConnected() const { return GetState() == State::kConnected; }
  // A stream that writes to this socket.
  void GetStream(rc_ptr<Stream>& out);

 private:
  // A connection that stands.
  explicit IpcSocket(std::unique_ptr<IpcRegion> region);
  static rc_ptr<IpcSocket> MakeConnected(std::unique_ptr<IpcRegion> region);

  std::shared_ptr<IpcIntroduction> GetIntroduction();
  u32 ReadRing(void* target, u32 length, u32 timeoutMs);
  void LosePeer();

  const std::unique_ptr<IpcRegion> region_;  // never null
  std::atomic<State> state_{State::kClosed};
  std::string obstacle_;

  // Guards introduction_, which a listening socket has. Accept takes a reference, so that Close may be called
  // meanwhile.
  CriticalSection introductionLock_;
  std::shared_ptr<IpcIntroduction> introduction_;
};

}  // namespace kestrun

#endif  // KESTRUN_TRANSPORT_SHARED_IPC_SOCKET_H_
