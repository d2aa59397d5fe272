// The numbers of the protocol between stubs and master. Only the numbers are sent; docs/protocol.md tells which message
// holds which segments, which side sends it, and when.
#ifndef KESTRUN_PROTOCOL_PROTOCOL_H_
#define KESTRUN_PROTOCOL_PROTOCOL_H_

#include "runtime/base/types.h"

namespace kestrun {

// Service numbers: the two ends of a message.
inline constexpr u32 kMasterService = 2;
inline constexpr u32 kStubService = 3;

// Message types. What a stub sends bears kStubService -> kMasterService, what the master sends it the reverse; what the
// master posts to itself bears kMasterService on both sides. Numbers from 1000000 upward belong to the dispatcher.
enum MessageType : u32 {
  MSG_LOCAL_JOB_RESULT = 100,  // a local build thread to the message thread: a tool has ended
  MSG_BUILD_REQUEST = 101,     // stub to master: run this tool
  MSG_QUEUE_TICK = 102,        // the master to itself, every 500 ms; never with EagerScheduling
  MSG_JOBS_FINISHED = 104,     // the finish event was signalled
  MSG_STOP = 105,              // the master is to stop
  MSG_DRAIN_REQUESTS = 106,    // the master to itself: take over the jobs that have been parsed
  MSG_PROJECT_DETAILS = 107,   // script stub to master, ahead of its jobs
  MSG_BUILD_RESULT = 600,      // master to stub: output, and with SEG_EXIT_CODE the end of a job
  MSG_PROJECT_COMPLETE = 601,  // master to script stub, after its last result
  MSG_OBSERVE = 800,           // observer to master: what it wants to be told
  MSG_JOURNAL = 801,           // master to observer: records of jobs, and the state of the whole
};

// The types that a master accepts from its clients. Each acts for the client on whose channel it comes, except
// MSG_STOP, by which any client ends the master. All other types are the master's own, and refused if they come from a
// channel.
inline bool MayStubSend(u32 type) {
  return type == MSG_BUILD_REQUEST || type == MSG_STOP || type == MSG_PROJECT_DETAILS || type == MSG_OBSERVE;
}

// Segment types: text unless a comment gives another form.
enum SegmentType : u32 {
  SEG_ARGUMENTS = 1,
  SEG_JOB_NAME = 3,
  SEG_STDOUT = 4,
  SEG_STDERR = 5,
  SEG_EXIT_CODE = 6,  // i32
  SEG_JOB_ID = 9,     // i32
  SEG_WORKING_DIR = 10,
  SEG_START_TIME = 12,  // u64: local time, milliseconds since the FILETIME epoch
  SEG_ELAPSED = 13,     // i32: milliseconds
  SEG_STOP_REASON = 23,
  SEG_TOOL = 26,  // full path of the executable
  SEG_ECHO_TEXT = 27,
  SEG_JOB_TIMEOUT = 28,  // u32: seconds, 0 for none
  SEG_PROJECT = 29,
  SEG_JOB_COUNT = 30,   // u32
  SEG_FLAGS = 31,       // u32: JobFlag bits
  SEG_KEEP_GOING = 32,  // u32: 1, or the segment is absent
  SEG_ENV_VAR = 300,    // container of one SEG_ENV_NAME and one SEG_ENV_VALUE; repeated
  SEG_ENV_NAME = 301,
  SEG_ENV_VALUE = 302,
  SEG_OBSERVE_KIND = 400,     // u32: ObserveKind
  SEG_OBSERVE_PROCESS = 401,  // u32: jobs below this process are marked; 0 or absent for none
  SEG_JOURNAL_STATE = 402,    // EncodeState
  SEG_JOURNAL_JOBS = 403,     // any number of EncodeRecord
  SEG_REFUSAL = 404,          // why this client is told nothing
  SEG_CLIENT_PROCESS = 405,   // u32: of a request: its client; with TransparentTools, or with SEG_SCRIPT_LINE
  SEG_SCRIPT_LINE = 406,      // u32: of a request, and then of its result: a script stub that names failures
};

// The kinds of requests of an observer.
enum ObserveKind : u32 {
  OBSERVE_SNAPSHOT = 1,  // the state and the jobs that run or wait, once
  OBSERVE_FOLLOW = 2,    // the same, and from then on each job that comes or changes
  OBSERVE_FLUSH = 3,     // of one that follows: at once all that it has not been told yet
};

// Bits of SEG_FLAGS and of Options::flags.
enum JobFlag : u32 {
  FLAG_VERBOSE = 0x20,
  FLAG_KEEP_GOING = 0x400,
};

// As an exit code: Kestrun itself failed, not a tool.
inline constexpr i32 StubFailureCode = 0x45504C56;

}  // namespace kestrun

#endif  // KESTRUN_PROTOCOL_PROTOCOL_H_
