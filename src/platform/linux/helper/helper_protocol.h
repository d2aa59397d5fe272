// How a process, its zygote and its supervisors talk.
//
// A process that starts tools has a zygote (zygote.h): this very program, started once more as a small single-threaded
// process that forks quickly. The zygote forks a supervisor (supervisor.h) when no supervisor is idle. A supervisor
// makes its next tool's process in advance, so that the process and its id exist before there is a tool for it.
//
//   process --- helper socket (one message a supervisor) ---> zygote
//   process <-- control socket (a stream, one a supervisor) --> supervisor, and its tool to be
//
// A SupervisorRequest carries the supervisor's end of the control socket. All else goes over that socket: commands one
// way and reports the other, in this order for each tool:
//
//   kReady       a report of the process that is to become the tool
//   kStart       a command to that process, which then becomes the tool. It carries as descriptors the working
//   directory
//                and those standard streams that are not empty, and then further ones; the text that its header
//                announces follows it
//   (commands)   to the supervisor
//   kEnded       a report: the tool has ended
//   kEmpty       a report: what the tool left behind has ended too; only if kEnded has not said that nothing is left
//
// After kEmpty, or a kEnded that says that nothing is left, the supervisor is idle: the process keeps the control
// socket for its next tool. A late command for the tool before may arrive in front of kStart; it is ignored.
//
// When the process closes its end of the control socket, it gives the supervisor up; when the process dies, the kernel
// closes that end. No other process has a copy of that end, so the supervisor learns of either at once.
//
// Both sides are the same build of the program on one machine, so structures are sent as they lie in memory.
#ifndef KESTRUN_PLATFORM_LINUX_HELPER_HELPER_PROTOCOL_H_
#define KESTRUN_PLATFORM_LINUX_HELPER_HELPER_PROTOCOL_H_

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

// The header of a kStart command. It is followed by `textSize` bytes: the program's path, then `argumentCount`
// arguments and `variableCount` environment entries, each with its NUL, and `furtherCount` numbers (int) that the
// further descriptors are to have in the tool.
struct ToolHeader {
  std::uint32_t flags;
  std::uint32_t streams;  // bit n: stream n comes along as a descriptor; the others are /dev/null
  std::int32_t nice;      // added to the caller's own
  std::uint32_t argumentCount;
  std::uint32_t variableCount;
  std::uint32_t furtherCount;
  std::uint64_t textSize;
  std::uint64_t descriptorLimit;
  std::uint64_t descriptorMaximum;
};

enum class CommandKind : std::uint32_t {
  kStart,        // with a header; the only one for an idle supervisor
  kKillOnClose,  // value: whether the end of the control socket ends the tool and everything below it
  kKillAll,      // value: exit code, unless it has ended; ends the tool and everything below it
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
  kReady,  // the next tool's process exists and waits; if `error` is not 0, it could not be made
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
  std::uint32_t isEmpty;    // kEnded: 1 if the tool left nothing behind; then no kEmpty follows
  UsedTime own;             // kEnded: of the tool and the children that it waited for
  UsedTime all;             // kReady: of all tools before, with their descendants; kEnded, kEmpty: the same of this one
  std::uint64_t peakBytes;  // kEnded: of the tool, or the largest of the children that it waited for
};

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_HELPER_HELPER_PROTOCOL_H_
