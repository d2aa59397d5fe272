// Reads the segments of a received message. Holds a reference to its message; one thread at a time.
//
// An optional segment is read with Message::FindSegment and GetValue, so that its target keeps its default; the Read
// operations below are that, in one call.
#ifndef KESTRUN_PROTOCOL_MESSAGE_READER_H_
#define KESTRUN_PROTOCOL_MESSAGE_READER_H_

#include <string>
#include <string_view>

#include "messaging/message.h"
#include "runtime/base/rc_ptr.h"
#include "runtime/base/types.h"

namespace kestrun {

class MessageReader {
 public:
  explicit MessageReader(rc_ptr<Message> message);

  // The n-th segment of this type must be there and must hold such a value. Otherwise Message::FormatException, with
  // the segment's type as its code and the text "No such segment" or "Invalid segment size".
  void RequireString(u32 id, std::string& out, u32 n = 0) const;
  void RequireInt(u32 id, i32& out, u32 n = 0) const;

  // True if the segment is there and holds such a value; otherwise out stays as it was.
  bool ReadString(u32 id, std::string& out) const { return Read(id, out); }
  // The text in place: empty if the segment is not there. The view holds as long as the message.
  std::string_view GetText(u32 id) const;
  bool ReadInt(u32 id, i32& out) const { return Read(id, out); }
  bool ReadUnsigned(u32 id, u32& out) const { return Read(id, out); }
  bool ReadLong(u32 id, u64& out) const { return Read(id, out); }

 private:
  template <class T>
  bool Read(u32 id, T& out) const;
  template <class T>
  void Require(u32 id, T& out, u32 n) const;

  rc_ptr<Message> message_;
};

}  // namespace kestrun

#endif  // KESTRUN_PROTOCOL_MESSAGE_READER_H_
