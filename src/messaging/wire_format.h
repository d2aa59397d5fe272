// The sizes in bytes of the headers in the byte form of messages.
//
// They are part of the protocol and never change; docs/protocol.md has the fields.
#ifndef KESTRUN_MESSAGING_WIRE_FORMAT_H_
#define KESTRUN_MESSAGING_WIRE_FORMAT_H_

#include "runtime/base/types.h"

namespace kestrun::wire {

inline constexpr u32 kFrameHeaderSize = 4;    // the length of the message
inline constexpr u32 kMessageHeaderSize = 8;  // type and services, sequence
inline constexpr u32 kSegmentHeaderSize = 8;  // type, and length or count

}  // namespace kestrun::wire

#endif  // KESTRUN_MESSAGING_WIRE_FORMAT_H_
