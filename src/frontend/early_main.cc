// The plain case of a client, ahead of the C library (platform/early_start.h): a tool without an option before it,
// below a `dorn` whose master hands out slots. It does what RunTransparently does, and sends the same bytes. What it
// can't do it leaves to the ordinary start before it has asked the master for anything; and a tool that is not found,
// or no program, after that, together with the master's answer.
#include "app/options.h"
#include "app/stub_base.h"
#include "client/tool_slot.h"
#include "frontend/option_parser.h"
#include "frontend/option_table.h"
#include "platform/early_start.h"
#include "protocol/slot_request.h"

namespace kestrun {

namespace {

namespace early = platform::early;

// False for an option, and for a name that the option parser would split, or that stands in quotes.
bool IsPlainTool(std::string_view tool) {
  if (tool.empty() || tool.front() == kOptionMark) return false;
  for (const char c : tool) {
    if (static_cast<unsigned char>(c) <= ' ' || c == '"') return false;
  }
  return true;
}

// The option parser drops blanks ahead of the first argument; all others of them are quoted.
bool IsPlainArgument(const char* argument) {
  return argument == nullptr || (*argument != '\f' && *argument != '\r');
}

bool IsPlainCase(const early::Start& start) {
  return start.words[0] != nullptr && start.words[1] != nullptr && IsPlainTool(early::View(start.words[1])) &&
         IsPlainArgument(start.words[2]) && early::FindVariable(start, kOptionsVariable) == nullptr;
}

// False if the folder is not known.
bool AppendRequest(const early::Start& start, early::Text& request) {
  SlotRequestHeader header;
  header.inputPipe = early::PipeNumber(0);
  header.outputPipe = early::PipeNumber(1);
  request += std::string_view(reinterpret_cast<const char*>(&header), sizeof header);
  char room[kLongestFolder + 1];
  const std::string_view folder = early::CurrentFolder(room, sizeof room);
  if (folder.empty()) return false;
  AppendSlotTexts({early::View(kUsualProject), {}, folder, early::View(start.words[1]), {}}, request);
  early::AppendCommandLine(start.words + 2, request);
  return true;
}

// -1 where nothing was asked.
int AskForSlot(const early::Start& start) {
  const char* const id = early::FindVariable(start, kIdVariable);
  if (id == nullptr || *id == '\0') return -1;
  // All texts are in memory of fixed size: there is no heap before the C library has started.
  char nameRoom[256];
  early::Text name(nameRoom);
  name += kSlotServerPrefix;
  name += early::View(id);
  char requestRoom[sizeof(SlotRequestHeader) + kMostSlotText];
  early::Text request(requestRoom);
  if (name.IsCut() || !AppendRequest(start, request)) return -1;
  const int server = early::ConnectLocalStream(start, name.View());
  // A request that was not sent whole ends with its connection; the ordinary start then asks anew.
  if (server < 0 || early::Send(server, request.View())) return server;
  early::Close(server);
  return -1;
}

}  // namespace

}  // namespace kestrun

// The connection stays open in the ordinary start: where the master can't see the end of a process it is what holds the
// slot.
void kestrun::platform::early::Main(const Start& start) {
  if (!IsPlainCase(start)) return;
  const int server = AskForSlot(start);
  if (server < 0) return;
  SlotAnswer answer{};
  // Without its master a build goes on as it would without Kestrun.
  if (Receive(server, &answer, sizeof answer) != sizeof answer) answer = SlotAnswer::kGranted;
  if (answer == SlotAnswer::kKeepOpen) KeepOpen(server);
  if (answer != SlotAnswer::kStopping) BecomeProgram(start, start.words + 1);
  earlyAnswer = answer;
}
