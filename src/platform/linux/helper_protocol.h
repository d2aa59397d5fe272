// How a process, its zygote and its supervisors talk.
//
// A process that starts tools has a zygote: this very program, started once more as a small single-threaded process
// that forks quickly. The zygote forks a supervisor for each tool that finds none idle, and the supervisor forks the
// tool.
//
//   process --- helper socket (one message a supervisor) ---> zygote
//   process <-- control socket (a stream, one a supervisor) --> supervisor ---> tool
//
// A StartMessage carries as descriptors the supervisor's end of the control socket, the working directory, and the
// tool's standard streams that are not empty. All else goes over the control socket: first a ToolHeader and the text
// that it announces, which is answered by one kStarted report; then commands one way and reports the other.
//
// After a kEmpty report the supervisor is idle: the process keeps the control socket for its next tool. A kStart
// command then carries the working directory and the streams, with ToolHeader and text behind it, and all goes on as
// before. A command of the tool before may still arrive in front of it, and means nothing. A supervisor whose zygote
// has died takes no further tool, since nobody would end what it leaves if it were killed: it ends, and the process
// asks elsewhere.
//
// The end of the control socket, seen by the supervisor, means that the process wants no more of it or died in whatever
// way: the kernel closes the socket. Nothing else keeps the process's end open.
//
// All of this stays within one machine and one build of the program, so structures travel as they lie in memory.
#ifndef KESTRUN_PLATFORM_LINUX_HELPER_PROTOCOL_H_
#define KESTRUN_PLATFORM_LINUX_HELPER_PROTOCOL_H_

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

namespace kestrun::platform {

// Arguments 0 and 1 of a helper process. Argument 0 is also what a list of processes shows.
inline constexpr char kHelperName[] = "kestrun-helper";
inline constexpr char kHelperArgument[] = "--helper-of-a-kestrun-process-4f1c9a";
// The descriptor under which a helper finds its socket.
inline constexpr int kHelperSocket = 3;

enum class SessionKind : std::uint32_t {
  kOwn,     // a session of its own, without a terminal: Ctrl-C and job control do not reach the tools
  kShared,  // the caller's session, and its process group: the tool can use the terminal
};

// The first message on the helper socket.
struct HelloMessage {
  std::uint32_t magic;
  SessionKind session;
  std::int32_t autogroupNice;  // with kOwn: the weight of the whole session against others
};
inline constexpr std::uint32_t kHelloMagic = 0x6B724865;

// Which of the standard streams come along as descriptors; the others are /dev/null.
struct StartMessage {
  std::uint32_t streams;  // bit n: stream n
};
inline constexpr int kMaxStartDescriptors = 5;

enum ToolFlag : std::uint32_t {
  kToolOwnGroup = 1,  // its own process group, which ends as a whole
};

// Followed by `textSize` bytes: the program's path, then `argumentCount` arguments and `variableCount` environment
// entries, each with its NUL.
struct ToolHeader {
  std::uint32_t flags;
  std::int32_t nice;  // added to the caller's own
  std::uint64_t descriptorLimit;
  std::uint64_t descriptorMaximum;
  std::uint32_t argumentCount;
  std::uint32_t variableCount;
  std::uint64_t textSize;
};

enum class CommandKind : std::uint32_t {
  kResume,       // let the tool run
  kKillOnClose,  // value: whether the end of the control socket ends the tool and everything below it
  kKillAll,      // value: exit code; ends the tool and everything below it
  kCloseJob,     // the same, with the exit code of a killed tool
  kKillTool,     // value: exit code; ends the tool alone
  kSignalGroup,  // value: the signal for the tool's own group
  kStart,        // value: StartMessage's streams; with descriptors, to an idle supervisor
};

struct Command {
  CommandKind kind;
  std::uint32_t value;
};

enum class ReportKind : std::uint32_t {
  kStarted,  // the tool exists and is held back; or `error` is not 0
  kEnded,    // the tool has ended
  kEmpty,    // nothing is left below the supervisor, which is idle now
};

struct Report {
  ReportKind kind;
  std::int32_t error;       // kStarted: errno
  std::int32_t tool;        // kStarted: process ids
  std::int32_t supervisor;  // kStarted
  std::uint32_t exitCode;   // kEnded
  // kStarted: of all tools before; kEnded: of the tool with what it waited for; kEmpty: of everything below it.
  std::uint64_t userTimeUs;
  std::uint64_t kernelTimeUs;
};

// ---- The helper's side ----

// Runs the helper's life on the socket and does not return.
[[noreturn]] void RunZygote(int socket);

// In a process that ZYGOTE forked. Owns the control socket, and the descriptors for its first tool, which lie as in a
// StartMessage.
[[noreturn]] void RunSupervisor(std::int32_t zygote, int control, std::uint32_t streams, const int* descriptors);

// recvmsg, with the descriptors that come along; COUNT is 0 without any.
ssize_t ReceiveDescriptors(int socket, void* data, std::size_t size, int (&descriptors)[kMaxStartDescriptors],
                           std::size_t& count);

// Kills every child of this process but those in `spared`. True if there was any.
bool KillChildren(const std::int32_t* spared, std::size_t count);

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_HELPER_PROTOCOL_H_
