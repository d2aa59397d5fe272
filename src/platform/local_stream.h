// Local stream sockets: connections between processes of one user on one machine. The kernel queues the clients, tells
// when a connection ends, and names the user of the other end. On a system without them kHasLocalStreams is false, and
// the calls here fail.
//
// A server also learns when the *process* of a client ends, even if that process has meanwhile become another program
// and closed its end of the connection.
#ifndef KESTRUN_PLATFORM_LOCAL_STREAM_H_
#define KESTRUN_PLATFORM_LOCAL_STREAM_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace kestrun::platform {

extern const bool kHasLocalStreams;

// How a process that is no child of this one has ended.
struct ProcessEnd {
  bool isKnown = false;
  int exitCode = 0;  // where it ended by itself
  int signal = 0;    // that ended it; 0 for none
  std::int64_t cpuUs =
      -1;  // of it, and of the children that it waited for in steps of the system's ticks; -1: not known
};

// The client's end of a connection. For one thread.
class LocalStream {
 public:
  // Null if no server of this user listens under this name. Waits only where the server's queue is full.
  static std::unique_ptr<LocalStream> Connect(const std::string& name);

  virtual ~LocalStream() = default;

  // The first message of a connection, of at most LocalServer::kMaxMessage bytes. False if the server has gone.
  virtual bool Send(const void* data, std::size_t size) = 0;
  // Waits for bytes: how many came, 0 if the server has gone.
  virtual std::size_t Receive(void* data, std::size_t size) = 0;
  // Keeps the connection open in the program that this process becomes, for a server that can't tell otherwise when
  // that program ends.
  virtual void KeepOpen() = 0;
};

// Serves clients on the thread that calls Run.
class LocalServer {
 public:
  static constexpr std::size_t kMaxMessage = 4096;

  // The number of a client, valid from its first message until its process has ended or, if it was not answered yet,
  // until it hangs up. Never 0, never used twice.
  using Client = std::uint64_t;

  // Called on the thread of Run.
  class Handler {
   public:
    virtual ~Handler() = default;
    // The first message of a new client, of at most kMaxMessage bytes; what the client sends later is dropped. If
    // `seesEnd` is false the system does not tell of the end of the client's process; the end of the connection counts
    // instead, and the client has to keep it open. The result false refuses the client and hangs up.
    virtual bool OnClient(Client client, std::uint32_t processId, bool seesEnd, const char* data, std::size_t size) = 0;
    // The client is gone. `readEnd` tells how its process has ended. It makes some system calls, so work that other
    // clients wait for should come first; but the earlier it is called, the more it can tell.
    virtual void OnGone(Client client, const std::function<ProcessEnd()>& readEnd) = 0;
  };

  // Null if the name can't be listened on; the reason is in `error`. A name that has a server already is taken over,
  // whether that server lives or not, so the caller has to see that there is only one.
  static std::unique_ptr<LocalServer> Listen(const std::string& name, std::string& error);

  virtual ~LocalServer() = default;

  // Until Stop.
  virtual void Run(Handler& handler) = 0;
  // From any thread.
  virtual void Stop() = 0;
  // Sends the last bytes that this client gets and hangs up; the client stays until its process ends. Never waits: a
  // client that does not take them has gone. From any thread.
  virtual void Answer(Client client, const void* data, std::size_t size) = 0;
};

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LOCAL_STREAM_H_
