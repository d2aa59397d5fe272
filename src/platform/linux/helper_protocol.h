// How a process, its zygote and its supervisors talk.
//
// A process that starts tools has a zygote: this very program, started once more as a small single-threaded process
// that forks quickly. The zygote forks a supervisor where none is idle, and a supervisor makes its next tool's process
// ahead: it exists, with its id, before there is a tool for it, and waits for one.
//
//   process --- helper socket (one message a supervisor) ---> zygote
//   process <-- control socket (a stream, one a supervisor) --> supervisor, and its tool to be
//
// A SupervisorRequest carries the supervisor's end of the control socket. All else goes over that socket: commands one
// way and reports the other, in rounds of
//
//   kReady       from the process that the tool is to become
//   kStart       taken by that process, which becomes the tool. It carries as descriptors the working directory and
//                those standard streams that are not empty, and behind it comes the text that its header announces
//   (commands)   to the supervisor
//   kEnded, and kEmpty if the tool has left something behind that ends later
//
// Between kEmpty, or a kEnded that says as much, and the next kReady nothing is below the supervisor, which is idle:
// the process keeps the control socket for its next tool. A command of the tool before may still arrive in front of
// kStart, and means nothing.
//
// The end of the control socket, seen by the supervisor, means that the process wants no more of it or died in whatever
// way: the kernel closes the socket. Nothing else keeps the process's end open.
//
// All of this stays within one machine and one build of the program, so structures travel as they lie in memory.
#ifndef KESTRUN_PLATFORM_LINUX_HELPER_PROTOCOL_H_
#define KESTRUN_PLATFORM_LINUX_HELPER_PROTOCOL_H_

#include <signal.h>
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

// Asks the zygote for a supervisor.
struct SupervisorRequest {
  std::uint32_t magic;
};
inline constexpr std::uint32_t kSupervisorMagic = 0x6B725375;

enum ToolFlag : std::uint32_t {
  kToolOwnGroup = 1,     // its own process group, which ends as a whole
  kToolKillOnClose = 2,  // as the command kKillOnClose
};

// What a tool is started with. Followed by `textSize` bytes: the program's path, then `argumentCount` arguments and
// `variableCount` environment entries, each with its NUL.
struct ToolHeader {
  std::uint32_t flags;
  std::uint32_t streams;  // bit n: stream n comes along as a descriptor; the others are /dev/null
  std::int32_t nice;      // added to the caller's own
  std::uint32_t argumentCount;
  std::uint32_t variableCount;
  std::uint64_t textSize;
  std::uint64_t descriptorLimit;
  std::uint64_t descriptorMaximum;
};
inline constexpr int kMaxStartDescriptors = 4;

enum class CommandKind : std::uint32_t {
  kStart,        // with a header; the only one for an idle supervisor
  kKillOnClose,  // value: whether the end of the control socket ends the tool and everything below it
  kKillAll,      // value: exit code; ends the tool and everything below it
  kCloseJob,     // the same, with the exit code of a killed tool
  kKillTool,     // value: exit code; ends the tool alone
  kSignalGroup,  // value: the signal for the tool's own group
};

struct Command {
  CommandKind kind;
  std::uint32_t value;
  ToolHeader tool;  // kStart
};

enum class ReportKind : std::uint32_t {
  kReady,  // the next tool's process exists and waits; or `error` is not 0
  kEnded,  // the tool has ended
  kEmpty,  // what it had left behind has ended too
};

struct UsedTime {
  std::uint64_t userUs;
  std::uint64_t kernelUs;
};

struct Report {
  ReportKind kind;
  std::int32_t error;       // kReady: errno
  std::int32_t tool;        // kReady: process ids
  std::int32_t supervisor;  // kReady
  std::uint32_t exitCode;   // kEnded
  std::uint32_t isEmpty;    // kEnded: whether it left nothing behind; then no kEmpty follows
  UsedTime own;             // kEnded: of the tool with what it waited for
  UsedTime all;             // of everything below the supervisor: kReady: under all tools before; else under this one
};

// ---- The helper's side ----

// Runs the helper's life on the socket and does not return.
[[noreturn]] void RunZygote(int socket);

// In a process that the zygote forked. Owns the control socket.
[[noreturn]] void RunSupervisor(int control);

// recvmsg, with the descriptors that come along; COUNT is 0 without any.
ssize_t ReceiveDescriptors(int socket, void* data, std::size_t size, int (&descriptors)[kMaxStartDescriptors],
                           std::size_t& count);

// Kills every child of this process but those in `spared`, and the whole of the process group `group` if one of them is
// in it: as long as that child is not waited for, the number can't be another group's. 0 is no group.
void KillChildren(std::int32_t group, const std::int32_t* spared, std::size_t count);

// Signals that a terminal or a shutdown sends to whole groups: a helper outlives them, and ends when its work does. It
// has them blocked and not ignored, so that a tool finds them as they should be with its mask alone.
inline constexpr int kBlockedSignals[] = {SIGINT, SIGQUIT, SIGTERM, SIGHUP, SIGPIPE, SIGTSTP, SIGTTIN, SIGTTOU};

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_HELPER_PROTOCOL_H_
