// A byte stream in each direction between two processes of one machine, over two rings in shared memory, with a listen,
// accept and connect model.
//
// A listener owns a region under a well-known name L and uses it for nothing but introductions: each connector takes
// the mutex L.lck, asks on L, is told the name of a private region made for it, attaches to that one, signals L.chg and
// leaves L. Both ends then talk on the private region alone. docs/protocol.md has the bytes.
//
// Counted: held by rc_ptr. Owns all its handles and its mapping.
//
// Threads: one reader, and writers one at a time (StreamAdapter and the channels see to that); reader and writer may be
// two threads. Close may come from any thread at any time and ends what is blocked in Read, Write or Accept.
//
//   state       entered by                                             left by
//   closed      construction; Close; a read, a write or a wait handle  Listen, Connect, Accept on its new socket
//               request that finds the peer gone
//   listening   Listen                                                 Close
//   connecting  Connect, while it is on the listener's region          end of Connect
//   connected   Connect; Accept on its new socket                      Close, peer gone
//   failed      Connect that reached the listener and failed           Close
//
// How an end learns that the other one has gone:
//
//   the peer            what changes                             seen by
//   closes              attach count, generation; reader woken   the next read or write, a blocked reader at once
//   dies while attached handle count of the ring's events is 1   GetWaitHandle; a blocked reader or writer once a
//   second
//
// An accepting end also takes a peer that keeps the lock of a ring for 5 s as gone, and never waits for it in Read.
//
// What the peer wrote before it went is still read; only then the socket counts as no longer connected.
//
// Listen, Connect and Accept report failure by their result; a kernel object that can't be opened or made is a
// SyncException.
#ifndef KESTRUN_TRANSPORT_IPC_SOCKET_H_
#define KESTRUN_TRANSPORT_IPC_SOCKET_H_

#include <atomic>
#include <memory>
#include <string>

#include "runtime/critical_section.h"
#include "runtime/mapped_file.h"
#include "runtime/rc_ptr.h"
#include "runtime/stream.h"
#include "runtime/sync.h"
#include "runtime/types.h"
#include "transport/ipc_ring.h"

namespace kestrun {

class IpcSocket : public rc_base {
 public:
  class StreamAdapter;  // transport/ipc_stream_adapter.h

  enum class State : int { kClosed = 0, kListening = 1, kConnecting = 2, kConnected = 3, kFailed = 4 };

  struct Result {
    u32 count = 0;
    bool isConnected = false;
  };

  IpcSocket();
  ~IpcSocket() override;

  // Bytes of a listening name, so that names of connections stay below 128.
  static constexpr size_t kMaxListeningName = 116;

  // False if the name is in use or too long.
  bool Listen(const std::string& name);

  // Waits for a request, without limit while the socket listens and none is there, and serves it: 5 s at most, and no
  // longer than the connector lives. A new connected socket, or null if the connector went away or failed, or somebody
  // keeps the lock of a ring.
  IpcSocket* Accept();

  // Makes what the next connection needs, so that its connector does not wait for that. Without it Accept does the same
  // when it is asked. From the thread that accepts.
  void PrepareNext();

  // Waits for its turn behind other connectors without limit, then at most timeoutMs for each of the two steps. False
  // if nobody listens on the name (the state stays as it was) or the introduction failed (state failed).
  bool Connect(const std::string& name, u32 timeoutMs);

  void Close();

  // Returns as soon as something has come, and does not gather length bytes. The wait goes in slices of 1000 ms, as
  // many as fit into timeoutMs (one of timeoutMs if none does); kNoLimit waits until bytes come or the peer goes.
  Result Read(void* target, u32 length, u32 timeoutMs);

  // timeoutMs limits each wait for room. A short count with isConnected true means a full ring and a live peer.
  Result Write(const void* source, u32 length, u32 timeoutMs);

  // The handle for a Reactor to wait on, -1 if there is none. Each call also looks whether the peer has died, and then
  // makes the handle ready. Throws SocketException if the ring has no event.
  int GetWaitHandle();

  // Makes that handle ready: for a reader that leaves bytes behind.
  void SignalReader();

  // Bytes that can be read without a wait.
  u32 GetAvailable();
  // Bytes that can be written without a wait. Waits for a writer that is under way.
  u32 GetRoom();
  // Takes the peer for gone: the next read, write or wait handle request finds it so.
  void GiveUp() { LosePeer(); }
  // Ends attached to the ring that the connector writes; 0 without one.
  u32 GetAttachCount();
  const std::string& GetName() const { return name_; }
  State GetState() const { return state_.load(); }
  bool IsConnected() const { return GetState() == State::kConnected; }
  void GetStream(rc_ptr<Stream>& out);

 private:
  bool CreateRegion(const std::string& name);
  bool OpenRegion(const std::string& name);
  void DestroyRegion();
  void SetRings(std::unique_ptr<IpcRing> input, std::unique_ptr<IpcRing> output);
  void Interrupt();

  // The connector's part of an introduction.
  bool Introduce(std::string& connectionName, u32 timeoutMs);
  bool SendRequest();
  bool ReadReply(std::string& connectionName, u32 timeoutMs);

  // The listener's part.
  bool ReadRequest();
  bool IsHeldUp();
  std::unique_ptr<IpcSocket> ServeRequest(Condition& changed, Mutex& connectLock);
  std::unique_ptr<IpcSocket> MakeNext();
  std::unique_ptr<IpcSocket> TakeNext();
  bool SendReply(const std::string& connectionName);
  bool HasNewerRequest();
  bool IsConnectorGone(Mutex& connectLock);
  bool WasJoined();

  u32 ReadRing(void* target, u32 length, u32 timeoutMs);
  bool IsPeerGone();
  void LosePeer();

  std::string name_;          // constant once listening or connected
  bool isAccepting_ = false;  // likewise
  std::atomic<State> state_{State::kClosed};
  u32 connectionCounter_;  // the thread that accepts

  // Changed under both locks; each ring is used under its own. A blocked reader or writer holds its lock, so that
  // whoever wants to end its wait looks at the rings under ringsLock_, which is held for no wait. Order as they stand.
  CriticalSection inputLock_;
  CriticalSection outputLock_;
  CriticalSection ringsLock_;
  std::unique_ptr<MappedFile> region_;
  rc_ptr<MappedFile::ViewImpl> view_;
  std::unique_ptr<IpcRing> input_;
  std::unique_ptr<IpcRing> output_;

  // Of a listening socket; under inputLock_. Accept shares them, so that Close may come while it waits.
  std::shared_ptr<Mutex> connectLock_;
  std::shared_ptr<Condition> changeEvent_;
  std::unique_ptr<IpcSocket> next_;  // a connection without its connector; null while none is prepared
};

}  // namespace kestrun

#endif  // KESTRUN_TRANSPORT_IPC_SOCKET_H_
