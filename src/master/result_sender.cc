#include "master/result_sender.h"

#include "protocol/protocol.h"

namespace kestrun {

namespace {

constexpr i32 kRefused = 1;

rc_ptr<Message> ToStub(u32 type) {
  return new Message(type, kMasterService, kStubService);
}

// Adds the exit code to a message that holds the output already, and sends it as the last one of its job.
bool SendEnd(MessageChannel& channel, const rc_ptr<Message>& message, i32 exitCode, bool keepGoing) {
  message->AddI32(SEG_EXIT_CODE, exitCode);
  if (keepGoing) message->AddU32(SEG_KEEP_GOING, 1);
  return channel.Send(message);
}

rc_ptr<Message> OutputMessage(const std::string& stdoutText, const std::string& stderrText) {
  rc_ptr<Message> message = ToStub(MSG_BUILD_RESULT);
  message->AddString(SEG_STDOUT, stdoutText).AddString(SEG_STDERR, stderrText);
  return message;
}

}  // namespace

bool SendBuildResult(const rc_ptr<MessageChannel>& channel, const std::string& stdoutText,
                     const std::string& stderrText, i32 exitCode, bool keepGoing) {
  return channel && SendEnd(*channel, OutputMessage(stdoutText, stderrText), exitCode, keepGoing);
}

bool PassResultOn(const rc_ptr<MessageChannel>& channel, const Message& localResult, i32 exitCode, bool keepGoing,
                  u32 scriptLine) {
  if (!channel) return false;
  const rc_ptr<Message> message = ToStub(MSG_BUILD_RESULT);
  // Both segments are always sent, also when the tool wrote nothing.
  for (const u32 type : {SEG_STDOUT, SEG_STDERR}) {
    const rc_ptr<Message::Segment> output = localResult.FindSegment(type);
    message->AddSegment(output ? output.Get() : Message::Segment::FromString(type, "").Get());
  }
  if (scriptLine != 0) message->AddU32(SEG_SCRIPT_LINE, scriptLine);
  return SendEnd(*channel, message, exitCode, keepGoing);
}

bool SendBuildOutput(const rc_ptr<MessageChannel>& channel, const std::string& stdoutText,
                     const std::string& stderrText) {
  return channel && channel->Send(OutputMessage(stdoutText, stderrText));
}

bool SendBuildOutput(const rc_ptr<MessageChannel>& channel, const rc_ptr<MemoryStream>& stdoutContent,
                     const rc_ptr<MemoryStream>& stderrContent) {
  if (!channel) return false;
  const rc_ptr<Message> message = ToStub(MSG_BUILD_RESULT);
  message->AddContent(SEG_STDOUT, stdoutContent).AddContent(SEG_STDERR, stderrContent);
  return channel->Send(message);
}

bool SendRefusal(const rc_ptr<MessageChannel>& channel, const std::string& reason) {
  if (!channel) return false;
  rc_ptr<Message> refusal = ToStub(MSG_BUILD_RESULT);
  refusal->AddI32(SEG_EXIT_CODE, kRefused).AddString(SEG_STDERR, reason + "\r\n").AddString(SEG_STDOUT, "");
  return channel->Send(refusal);
}

bool SendProjectComplete(const rc_ptr<MessageChannel>& channel) {
  return channel && channel->Send(ToStub(MSG_PROJECT_COMPLETE));
}

}  // namespace kestrun
