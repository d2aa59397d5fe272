#include "protocol/message_reader.h"

#include <utility>

namespace kestrun {

MessageReader::MessageReader(rc_ptr<Message> message) : message_(std::move(message)) {}

template <class T>
bool MessageReader::Read(u32 id, T& out) const {
  const rc_ptr<Message::Segment> segment = message_->FindSegment(id);
  return segment && GetValue(*segment, out);
}
template bool MessageReader::Read(u32, std::string&) const;
template bool MessageReader::Read(u32, i32&) const;
template bool MessageReader::Read(u32, u32&) const;
template bool MessageReader::Read(u32, u64&) const;

std::string_view MessageReader::GetText(u32 id) const {
  const rc_ptr<Message::Segment> segment = message_->FindSegment(id);
  return segment ? segment->GetText() : std::string_view();
}

template <class T>
void MessageReader::Require(u32 id, T& out, u32 n) const {
  // The segment's type is the exception's code, so that the log names the segment that is missing.
  const rc_ptr<Message::Segment> segment = message_->FindSegment(id, n);
  if (!segment) throw Message::FormatException(static_cast<i32>(id), "No such segment");
  if (!GetValue(*segment, out)) throw Message::FormatException(static_cast<i32>(id), "Invalid segment size");
}

void MessageReader::RequireString(u32 id, std::string& out, u32 n) const {
  Require(id, out, n);
}
void MessageReader::RequireInt(u32 id, i32& out, u32 n) const {
  Require(id, out, n);
}

}  // namespace kestrun
