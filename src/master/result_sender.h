// Makes and sends the messages that tell a stub about its jobs and its project.
//
// Each operation may come from any thread. It gives false, with nothing done, if the channel is empty because the
// client has gone, and false if sending failed. The messages for observers are made in job_observers.cc.
#ifndef KESTRUN_MASTER_RESULT_SENDER_H_
#define KESTRUN_MASTER_RESULT_SENDER_H_

#include <string>

#include "messaging/message.h"
#include "messaging/message_channel.h"
#include "runtime/base/rc_ptr.h"
#include "runtime/base/types.h"
#include "runtime/files/memory_stream.h"

namespace kestrun {

// A MSG_BUILD_RESULT that ends the job for its stub. With `keepGoing` its failure is no reason to stop a script.
bool SendBuildResult(const rc_ptr<MessageChannel>& channel, const std::string& stdoutText,
                     const std::string& stderrText, i32 exitCode, bool keepGoing);

// The same, with the output segments of a MSG_LOCAL_JOB_RESULT, which are shared and not copied. A `scriptLine` other
// than 0 goes back to the client that gave it.
bool PassResultOn(const rc_ptr<MessageChannel>& channel, const Message& localResult, i32 exitCode, bool keepGoing,
                  u32 scriptLine = 0);

// A MSG_BUILD_RESULT with output and without an exit code: more messages will follow for the job.
bool SendBuildOutput(const rc_ptr<MessageChannel>& channel, const std::string& stdoutText,
                     const std::string& stderrText);
bool SendBuildOutput(const rc_ptr<MessageChannel>& channel, const rc_ptr<MemoryStream>& stdoutContent,
                     const rc_ptr<MemoryStream>& stderrContent);

// A MSG_BUILD_RESULT for a request that can't become a job: exit code 1, and the reason as standard error.
bool SendRefusal(const rc_ptr<MessageChannel>& channel, const std::string& reason);

// A MSG_PROJECT_COMPLETE: the last result of a script's project has been sent.
bool SendProjectComplete(const rc_ptr<MessageChannel>& channel);

}  // namespace kestrun

#endif  // KESTRUN_MASTER_RESULT_SENDER_H_
