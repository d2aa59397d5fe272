// What a client sends to the master's slot server, and what it gets. A client asks for a slot in the limit on running
// jobs, is answered once it has one, and then runs its tool itself; the slot is free again when its process has ended.
//
// Clients that a pipe joins are one pipeline: each waits for the others, so they run together. The request tells the
// pipes by numbers that mean the same to every process of the machine.
//
// The request is a header and, behind it, texts for people, each but the last with a NUL behind it: project, name of
// the job, folder, tool, arguments. The answer is one SlotAnswer. Both stay within one machine, so numbers lie as they
// do in memory.
#ifndef KESTRUN_PROTOCOL_SLOT_REQUEST_H_
#define KESTRUN_PROTOCOL_SLOT_REQUEST_H_

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>

#include "runtime/base/types.h"

namespace kestrun {

// Numbers are never used again with another meaning; a client takes one that it does not know for kGranted, and so
// builds beside the limit rather than not at all.
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

// The texts are cut to this length together: they are for people.
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

// They lie in `text`; those that were cut off are empty.
inline SlotTexts SplitSlotTexts(std::string_view text) {
  SlotTexts texts;
  for (std::string_view* const part : {&texts.project, &texts.name, &texts.folder, &texts.tool}) {
    *part = text.substr(0, text.find('\0'));
    text.remove_prefix(std::min(text.size(), part->size() + 1));
  }
  texts.arguments = text;
  return texts;
}

// False for what is no request. The texts lie in `data`.
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
