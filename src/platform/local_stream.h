// Connections between processes of one user on one machine, where the kernel queues those that connect, tells when one
// ends, and checks the user: local stream sockets. A system without them has kHasLocalStreams false, and its calls here
// fail.
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

// A client's end. One thread.
class LocalStream {
 public:
  // Null if no server of this user listens under this name. Waits only where the server's queue is full.
  static std::unique_ptr<LocalStream> Connect(const std::string& name);

  virtual ~LocalStream() = default;

  // The first message of a connection, of at most LocalServer::kMaxMessage bytes. False if the server has gone.
  virtual bool Send(const void* data, std::size_t size) = 0;
  // Waits for bytes: how many came, 0 if the server has gone.
  virtual std::size_t Receive(void* data, std::size_t size) = 0;
  // The connection stays open in the program that this process becomes: for a server that could not tell otherwise when
  // that ends.
  virtual void KeepOpen() = 0;
};

// Serves clients on the thread that calls Run.
class LocalServer {
 public:
  static constexpr std::size_t kMaxMessage = 4096;

  // A client, from its first message until its process has ended or, before that, it has hung up. Never 0, never
  // used twice.
  using Client = std::uint64_t;

  // Called on the thread of Run.
  class Handler {
   public:
    virtual ~Handler() = default;
    // The first message of a new client, of at most kMaxMessage bytes; what it sends later is dropped. With
    // `seesEnd` false the system does not tell of the end of its process, and the end of its connection counts, which
    // it has to keep open. False hangs up: it is no client.
    virtual bool OnClient(Client client, std::uint32_t processId, bool seesEnd, const char* data, std::size_t size) = 0;
    // `readEnd` tells how its process has ended. It takes some system calls, so what others wait for comes first; and
    // the earlier it is asked, the more it can tell.
    virtual void OnGone(Client client, const std::function<ProcessEnd()>& readEnd) = 0;
  };

  // Null if the name can't be listened on; the reason is in `error`. One server a name: a name that a dead server left
  // behind is taken over, and so is that of a live one.
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
