#include "client/tool_slot.h"

#include "platform/tool_process.h"
#include "protocol/place_table.h"

namespace kestrun {

namespace {

ToolSlot::Outcome OutcomeOf(SlotAnswer answer) {
  return answer == SlotAnswer::kStopping ? ToolSlot::Outcome::kStopping : ToolSlot::Outcome::kGranted;
}

}  // namespace

ToolSlot::Outcome ToolSlot::Take(const std::string& id, const SlotTexts& texts) {
  if (earlyAnswer != SlotAnswer{}) return OutcomeOf(earlyAnswer);
  return platform::kHasLocalStreams ? TakeFromServer(id, texts) : TakeFromTable(id, texts);
}

ToolSlot::Outcome ToolSlot::TakeFromTable(const std::string& id, const SlotTexts& texts) {
  if (!tableSlot_.OpenTable(GetJobSlotsId(id), JoinSlotTexts(texts))) return Outcome::kNoServer;
  return tableSlot_.Wait(kNoLimit) == ClientSlot::Outcome::kAdmitted ? Outcome::kGranted : Outcome::kLost;
}

ToolSlot::Outcome ToolSlot::TakeFromServer(const std::string& id, const SlotTexts& texts) {
  stream_ = platform::LocalStream::Connect(GetSlotServerName(id));
  if (!stream_) return Outcome::kNoServer;
  // The pipes tell the master which clients form a pipeline and have to run together.
  SlotRequestHeader header;
  header.inputPipe = platform::PipeNumber(0);
  header.outputPipe = platform::PipeNumber(1);
  const std::string request = MakeSlotRequest(header, texts);
  if (!stream_->Send(request.data(), request.size())) return Outcome::kLost;
  SlotAnswer answer{};
  if (stream_->Receive(&answer, sizeof answer) != sizeof answer) return Outcome::kLost;
  // Without a pidfd the server learns of the tool's end by the end of this connection.
  if (answer == SlotAnswer::kKeepOpen) stream_->KeepOpen();
  return OutcomeOf(answer);
}

}  // namespace kestrun
