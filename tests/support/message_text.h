// Reads the segments of a message, for the tests of the layers that know its vocabulary.
#ifndef KESTRUN_TESTS_SUPPORT_MESSAGE_TEXT_H_
#define KESTRUN_TESTS_SUPPORT_MESSAGE_TEXT_H_

#include <string>

#include "messaging/message.h"
#include "protocol/message_reader.h"

namespace kestrun::test {

// The text of a segment; "(none)" where there is no such segment.
inline std::string TextOf(const rc_ptr<Message>& message, u32 segment) {
  std::string text = "(none)";
  MessageReader(message).ReadString(segment, text);
  return text;
}

// The number that a segment holds, as a signed one; 0xDEAD where there is no such segment.
inline i32 NumberOf(const rc_ptr<Message>& message, u32 segment) {
  i32 number = 0xDEAD;
  MessageReader(message).ReadInt(segment, number);
  return number;
}

}  // namespace kestrun::test

#endif  // KESTRUN_TESTS_SUPPORT_MESSAGE_TEXT_H_
