// The request of a client to the master's slot server, and the answer. A client asks for a slot in the limit on running
// jobs, is answered once it has one, and then runs its tool itself; the slot is free again when the client's process
// has ended.
//
// Clients that are joined by pipes are one pipeline: each waits for the output or input of the others, so they must run
// together. The request names the pipes by numbers that mean the same to every process of the machine.
//
// The request is a header, followed by texts for display, each but the last with a NUL behind it: project, name of the
// job, folder, tool, arguments. The answer is one SlotAnswer. Both stay within one machine, so numbers are sent as they
// are in memory.
#ifndef KESTRUN_PROTOCOL_SLOT_REQUEST_H_
#define KESTRUN_PROTOCOL_SLOT_REQUEST_H_

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>

#include "runtime/base/types.h"

namespace kestrun {

// A number never gets another meaning. A client treats a number that it does not know as kGranted: it then runs its
// tool outside of the limit, which is better than not at all.
enum class SlotAnswer : u32 {
  kGranted = 1,
  kStopping = 2,  // the master ends: run nothing
  kKeepOpen = 3,  // granted; the connection is to stay open in the program that the client becomes
};

struct SlotRequestHeader {
  static constexpr u32 kMagic = 0x4B72536C;

  u32 magic = kMagic;
  u32 version = 2;
  u64 inputPipe = 0;   // the pipe that is the client's standard input; 0 if it is none
  u64 outputPipe = 0;  // the same of its standard output
};

// All texts together are cut to this length; they are only for display.
inline constexpr std::size_t kMostSlotText = 3072;

struct SlotTexts {
  std::string_view project;
  std::string_view name;
  std::string_view folder;
  std::string_view tool;
  std::string_view arguments;
};

// `text` is a std::string, or what takes characters and texts by += as one does.
template <class Text>
void AppendSlotTexts(const SlotTexts& texts, Text& text) {
  for (const std::string_view part : {texts.project, texts.name, texts.folder, texts.tool}) {
    text += part;
    text += '\0';
  }
  text += texts.arguments;
}

inline std::string JoinSlotTexts(SlotTexts texts) {
  texts.arguments = texts.arguments.substr(0, kMostSlotText);
  std::string text;
  AppendSlotTexts(texts, text);
  return text.substr(0, kMostSlotText);
}

inline std::string MakeSlotRequest(const SlotRequestHeader& header, const SlotTexts& texts) {
  return std::string(reinterpret_cast<const char*>(&header), sizeof header) + JoinSlotTexts(texts);
}

// The results are views of `text`; texts that were cut off are empty.
inline SlotTexts SplitSlotTexts(std::string_view text) {
  SlotTexts texts;
  for (std::string_view* const part : {&texts.project, &texts.name, &texts.folder, &texts.tool}) {
    *part = text.substr(0, text.find('\0'));
    text.remove_prefix(std::min(text.size(), part->size() + 1));
  }
  texts.arguments = text;
  return texts;
}

// False for bytes that are no request. The texts are views of `data`.
inline bool ReadSlotRequest(const char* data, std::size_t size, SlotRequestHeader& header, SlotTexts& texts) {
  if (size < sizeof header) return false;
  std::memcpy(&header, data, sizeof header);
  if (header.magic != SlotRequestHeader::kMagic) return false;
  texts = SplitSlotTexts({data + sizeof header, size - sizeof header});
  return true;
}

// The name of the slot server of a master's id: the id stands behind this.
inline constexpr std::string_view kSlotServerPrefix = "slots.";

inline std::string GetSlotServerName(const std::string& id) {
  return std::string(kSlotServerPrefix) + id;
}

}  // namespace kestrun

#endif  // KESTRUN_PROTOCOL_SLOT_REQUEST_H_
