// What a client sends to the master's slot server, and what it gets. A client asks for a slot in the limit on running
// jobs, is answered once it has one, and then runs its tool itself; the slot is free again when its process has ended.
//
// Clients that a pipe joins are one pipeline: each waits for the others, so they run together. The request tells the
// pipes by numbers that mean the same to every process of the machine.
//
// The request is a header and, behind it, text for the log: the project's name, a NUL, the command line. The answer is
// one SlotAnswer. Both stay within one machine, so numbers lie as they do in memory.
#ifndef KESTRUN_PROTOCOL_SLOT_REQUEST_H_
#define KESTRUN_PROTOCOL_SLOT_REQUEST_H_

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
  u32 version = 1;
  u64 inputPipe = 0;   // the pipe that is the client's standard input; 0 if it is none
  u64 outputPipe = 0;  // the same of its standard output
};

// The text is cut to this length: it is for people.
inline constexpr std::size_t kMostSlotText = 1024;

inline std::string MakeSlotRequest(const SlotRequestHeader& header, std::string_view project,
                                   std::string_view commandLine) {
  std::string text(project);
  text += '\0';
  text += commandLine;
  return std::string(reinterpret_cast<const char*>(&header), sizeof header) + text.substr(0, kMostSlotText);
}

struct SlotRequest {
  SlotRequestHeader header;
  std::string project;
  std::string commandLine;
};

// False for what is no request.
inline bool ReadSlotRequest(const char* data, std::size_t size, SlotRequest& request) {
  if (size < sizeof request.header) return false;
  std::memcpy(&request.header, data, sizeof request.header);
  if (request.header.magic != SlotRequestHeader::kMagic) return false;
  const std::string_view text(data + sizeof request.header, size - sizeof request.header);
  const std::size_t end = text.find('\0');
  request.project = text.substr(0, end);
  request.commandLine = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
  return true;
}

// The name of the slot server of a master's id.
inline std::string GetSlotServerName(const std::string& id) {
  return "slots." + id;
}

}  // namespace kestrun

#endif  // KESTRUN_PROTOCOL_SLOT_REQUEST_H_
