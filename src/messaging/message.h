// The unit that stubs and master exchange: a small header and an ordered list of typed segments. A segment holds a
// block of bytes or further segments, so a message is a small tree with bytes at its leaves. docs/protocol.md has the
// byte format; protocol/protocol.h the types in use.
//
// Messages and segments are counted and shared: one message may wait in the queues of several receivers, and one
// segment may belong to several messages. There is no lock, so a message does not change after it has been sent or
// delivered. (The channel that sends it sets the sequence, under its own lock.)
//
// Bytes that can't be a message are a Message::FormatException.
#ifndef KESTRUN_MESSAGING_MESSAGE_H_
#define KESTRUN_MESSAGING_MESSAGE_H_

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "messaging/format_exception.h"
#include "messaging/segment.h"
#include "messaging/wire_format.h"
#include "runtime/base/rc_ptr.h"
#include "runtime/base/types.h"
#include "runtime/files/memory_stream.h"
#include "runtime/files/path.h"
#include "runtime/files/stream.h"
#include "transport/sockets/address.h"

namespace kestrun {

class Message : public rc_base {
 public:
  using Segment = kestrun::Segment;
  using FormatException = kestrun::FormatException;
  using Streams = Segment::Streams;

  static constexpr u32 kHeaderSize = wire::kMessageHeaderSize;
  static constexpr u32 kMaxSegmentLength = Segment::kMaxLength;
  static constexpr u32 kSharedDataLimit = Segment::kSharedDataLimit;
  static constexpr u32 kMaxDepth = Segment::kMaxDepth;

  // 24 bits of type, 4 bits for each service number.
  Message(u32 type, u32 source, u32 destination);
  Message(const Address& address, u32 type, u32 source, u32 destination);
  // Parses a message of `length` bytes. It stops at the first end of a segment at or past `length`; the number of bytes
  // taken from the stream tells whether the segments ended with the message. Memory is allocated for bytes that are
  // there, and not for what they claim.
  Message(const Address& address, u32 length, Stream& stream);
  // The same from memory. `alike`, if given, is an earlier message: segments that are equal at the same place are
  // shared with it. The requests of a script differ in a few of some forty.
  Message(const Address& address, u32 length, MemoryStream& stream, const Message* alike);
  ~Message() override;

  u32 GetType() const { return header_ & 0xFFFFFF; }
  u32 GetSource() const { return (header_ >> 24) & 0xF; }
  u32 GetDestination() const { return header_ >> 28; }
  u32 GetSequence() const { return sequence_; }
  // The peer: of a received message, the other end of its channel.
  const Address& GetAddress() const { return address_; }

  void SetSequence(u32 sequence) { sequence_ = sequence; }

  void AddSegment(const rc_ptr<Segment>& segment);
  u32 GetSegmentCount() const { return static_cast<u32>(segments_.size()); }
  // Null past the end.
  rc_ptr<Segment> GetSegment(u32 index) const;
  // The occurrence-th (from 0) top-level segment of this type, else null.
  rc_ptr<Segment> FindSegment(u32 type, u32 occurrence = 0) const;

  // Fluent adders: a leaf of the value at the end of the list, and the message again. One for each kind of value that
  // is described; the program does not use AddText, AddU8 and AddI64.
  Message& AddString(u32 type, const std::string& value);
  Message& AddPath(u32 type, const Path& value);
  Message& AddText(u32 type, const char* value);
  Message& AddContent(u32 type, const rc_ptr<MemoryStream>& value);
  Message& AddU8(u32 type, u8 value);
  Message& AddI32(u32 type, i32 value);
  Message& AddU32(u32 type, u32 value);
  Message& AddI64(u32 type, std::int64_t value);
  Message& AddU64(u32 type, u64 value);

  // Bytes of the byte form.
  u64 GetWireSize() const;
  // Appends the byte form to the list and returns its size. Small data goes to the last stream of the list (a new one
  // if there is none), data over kSharedDataLimit is a stream of its own there, to be written whole.
  u32 Serialize(Streams& out) const;

  // "Type=<header word> Sequence=<n> Segments=<n>"
  void Describe(std::ostream& out) const;

 private:
  void ReadHeader(u32 length, Stream& stream);

  u32 header_;
  u32 sequence_ = 0;
  std::vector<rc_ptr<Segment>> segments_;
  Address address_;
};

}  // namespace kestrun

#endif  // KESTRUN_MESSAGING_MESSAGE_H_
