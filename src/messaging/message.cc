#include "messaging/message.h"

#include <algorithm>
#include <utility>

#include "messaging/segment_list.h"
#include "messaging/wire_format.h"

namespace kestrun {

namespace {

// Type in the low 24 bits, then source and destination, 4 bits each.
constexpr u32 HeaderWord(u32 type, u32 source, u32 destination) {
  return (type & 0xFFFFFF) | ((source << 24) & 0x0F000000) | (destination << 28);
}

}  // namespace

Message::Message(u32 type, u32 source, u32 destination) : header_(HeaderWord(type, source, destination)) {}

Message::Message(const Address& address, u32 type, u32 source, u32 destination)
    : header_(HeaderWord(type, source, destination)), address_(address) {}

Message::Message(const Address& address, u32 length, Stream& stream) : header_(0), address_(address) {
  const u32 available = stream.GetAvailable();
  ReadHeader(length, stream);
  // A segment that runs past `length` is taken whole; the channel then finds the message out of step.
  while (available - stream.GetAvailable() < length) segments_.push_back(Segment::Parse(stream));
}

Message::Message(const Address& address, u32 length, MemoryStream& stream, const Message* alike)
    : header_(0), address_(address) {
  const u32 begin = stream.GetPosition();
  ReadHeader(length, stream);
  if (alike != nullptr) segments_.reserve(alike->segments_.size());
  for (u32 done = stream.GetPosition() - begin; done < length; done = stream.GetPosition() - begin) {
    const u32 left = std::min(length - done, stream.GetAvailable());
    // Sharing saves the allocation and keeps the comparison of two requests' environments to one of pointers
    // (protocol/environment_segments.h).
    const rc_ptr<Segment> candidate = alike != nullptr ? alike->GetSegment(GetSegmentCount()) : nullptr;
    const u32 matched = candidate ? candidate->MatchWire(std::as_const(stream).GetData() + begin + done, left) : 0;
    if (matched > 0) {
      segments_.push_back(candidate);
      stream.Seek(begin + done + matched);
    } else {
      segments_.push_back(Segment::Parse(stream));
    }
  }
}

void Message::ReadHeader(u32 length, Stream& stream) {
  if (length < kHeaderSize) throw FormatException("Not enough bytes for a message");
  for (u32* field : {&header_, &sequence_}) {
    u32 word = 0;
    if (stream.Read(&word, sizeof word) == sizeof word) *field = word;
  }
}

Message::~Message() = default;

void Message::AddSegment(const rc_ptr<Segment>& segment) {
  segments_.push_back(segment);
}

rc_ptr<Segment> Message::GetSegment(u32 index) const {
  return detail::At(segments_, index);
}

rc_ptr<Segment> Message::FindSegment(u32 type, u32 occurrence) const {
  return detail::Find(segments_, type, occurrence);
}

Message& Message::AddString(u32 type, const std::string& value) {
  segments_.push_back(Segment::FromString(type, value));
  return *this;
}

Message& Message::AddPath(u32 type, const Path& value) {
  segments_.push_back(Segment::FromPath(type, value));
  return *this;
}

Message& Message::AddText(u32 type, const char* value) {
  segments_.push_back(Segment::FromText(type, value));
  return *this;
}

Message& Message::AddContent(u32 type, const rc_ptr<MemoryStream>& value) {
  segments_.push_back(Segment::FromContent(type, value));
  return *this;
}

Message& Message::AddU8(u32 type, u8 value) {
  segments_.push_back(Segment::FromU8(type, value));
  return *this;
}

Message& Message::AddI32(u32 type, i32 value) {
  segments_.push_back(Segment::FromI32(type, value));
  return *this;
}

Message& Message::AddU32(u32 type, u32 value) {
  segments_.push_back(Segment::FromU32(type, value));
  return *this;
}

Message& Message::AddI64(u32 type, std::int64_t value) {
  segments_.push_back(Segment::FromI64(type, value));
  return *this;
}

Message& Message::AddU64(u32 type, u64 value) {
  segments_.push_back(Segment::FromU64(type, value));
  return *this;
}

u64 Message::GetWireSize() const {
  u64 size = wire::kMessageHeaderSize;
  for (const auto& segment : segments_) size += segment->GetWireSize();
  return size;
}

u32 Message::Serialize(Streams& out) const {
  if (out.empty()) out.emplace_back(new MemoryStream());
  // A segment with large data puts its own stream behind the last one, so each segment asks for the last stream again.
  Stream& first = *out.back();
  first.Write(&header_, sizeof header_);
  first.Write(&sequence_, sizeof sequence_);
  for (const auto& segment : segments_) segment->Serialize(out);
  return static_cast<u32>(GetWireSize());
}

void Message::Describe(std::ostream& out) const {
  out << "Type=" + std::to_string(header_) + " Sequence=" + std::to_string(sequence_) +
             " Segments=" + std::to_string(segments_.size());
}

}  // namespace kestrun
