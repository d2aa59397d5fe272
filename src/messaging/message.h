// The unit that stubs and master exchange: a small header and an ordered list of typed segments. A segment holds a
// block of bytes or further segments, so a message is a small tree with bytes at its leaves. docs/protocol.md has the
// byte format; protocol/protocol.h the types in use.
//
// Messages and segments are counted and shared: one message may wait in the queues of several receivers, and one
// segment may hang in several messages. There is no lock, so after it has been sent or delivered nobody changes it.
// (The channel that sends it stamps the sequence, under its own lock.)
//
// A leaf of up to kSharedDataLimit bytes keeps them in itself; a larger one keeps a stream, which Serialize hands on
// without a copy, and which may be a part of the memory that the message was parsed from.
//
// What is wrong with the bytes of a message, or with the use of a segment, is a Message::FormatException.
#ifndef KESTRUN_MESSAGING_MESSAGE_H_
#define KESTRUN_MESSAGING_MESSAGE_H_

#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "runtime/exception.h"
#include "runtime/memory_stream.h"
#include "runtime/path.h"
#include "runtime/rc_ptr.h"
#include "runtime/stream.h"
#include "runtime/types.h"
#include "transport/address.h"

namespace kestrun {

class Message : public rc_base {
 public:
  class Segment;

  class FormatException : public SystemException {
   public:
    explicit FormatException(const std::string& message) : SystemException(message, "FormatException") {}
    FormatException(i32 code, const std::string& message) : SystemException(code, message, "FormatException") {}
  };

  using Streams = std::vector<rc_ptr<Stream>>;

  static constexpr u32 kHeaderSize = 8;
  static constexpr u32 kMaxSegmentLength = 0x20000000;
  // Data up to this size is copied when a message is serialised; larger data is shared.
  static constexpr u32 kSharedDataLimit = 0x4000;
  // Segments within segments, when parsing.
  static constexpr u32 kMaxDepth = 64;

  // 24 bits of type, 4 bits for each service number.
  Message(u32 type, u32 source, u32 destination);
  Message(const Address& address, u32 type, u32 source, u32 destination);
  // Parses a message of `length` bytes. It stops at the first end of a segment at or past `length`; what was taken from
  // the stream tells whether the segments were in step. Memory follows the bytes that are there, not what they claim.
  Message(const Address& address, u32 length, Stream& stream);
  ~Message() override;

  u32 GetType() const { return header_ & 0xFFFFFF; }
  u32 GetSource() const { return (header_ >> 24) & 0xF; }
  u32 GetDestination() const { return header_ >> 28; }
  u32 GetSequence() const { return sequence_; }
  // The peer: of a received message, the other end of its channel.
  const Address& GetAddress() const { return address_; }

  void SetSequence(u32 sequence) { sequence_ = sequence; }

  void AddSegment(Segment* segment);
  u32 GetSegmentCount() const { return static_cast<u32>(segments_.size()); }
  // Null past the end.
  rc_ptr<Segment> GetSegment(u32 index) const;
  // The occurrence-th (from 0) top-level segment of this type, else null.
  rc_ptr<Segment> FindSegment(u32 type, u32 occurrence = 0) const;

  // Fluent adders: a leaf of the value at the end of the list, and the message again.
  Message& AddString(u32 type, const std::string& value);
  Message& AddPath(u32 type, const Path& value);
  Message& AddText(u32 type, const char* value);
  Message& AddContent(u32 type, const rc_ptr<MemoryStream>& value);
  Message& AddU8(u32 type, u8 value);
  Message& AddI32(u32 type, i32 value);
  Message& AddU32(u32 type, u32 value);
  Message& AddI64(u32 type, std::int64_t value);
  Message& AddU64(u32 type, u64 value);

  // Appends the byte form to the list and returns its size. Small data goes to the last stream of the list (a new one
  // if there is none), data over kSharedDataLimit is a stream of its own there, to be written whole.
  u32 Serialize(Streams& out) const;

  // "Type=<header word> Sequence=<n> Segments=<n>"
  void Describe(std::ostream& out) const;

 private:
  u32 header_;
  u32 sequence_ = 0;
  std::vector<rc_ptr<Segment>> segments_;
  Address address_;
};

// A type of 28 bits, and either data or nested segments, never both.
class Message::Segment : public rc_base {
 public:
  // No data, no children.
  explicit Segment(u32 type);
  // A copy of the bytes.
  Segment(u32 type, const void* bytes, u32 length);
  // Data from a stream, exactly length bytes; StreamException if fewer come. The type word is kept as it came.
  Segment(Stream& stream, u32 length, u32 typeWord);
  Segment(u32 type, u32 length, Stream& stream);
  ~Segment() override;

  // Factories: a leaf of the value.
  static rc_ptr<Segment> FromString(u32 type, const std::string& value);
  static rc_ptr<Segment> FromPath(u32 type, const Path& value);
  static rc_ptr<Segment> FromText(u32 type, const char* value);
  // The stream's content: the stream itself if it is large, and it must not change any more then.
  static rc_ptr<Segment> FromContent(u32 type, const rc_ptr<MemoryStream>& value);
  static rc_ptr<Segment> FromU8(u32 type, u8 value);
  static rc_ptr<Segment> FromI32(u32 type, i32 value);
  static rc_ptr<Segment> FromU32(u32 type, u32 value);
  static rc_ptr<Segment> FromI64(u32 type, std::int64_t value);
  static rc_ptr<Segment> FromU64(u32 type, u64 value);

  // Reads one segment, with all that is in it. `depth` counts the segments around it.
  static rc_ptr<Segment> Parse(Stream& stream, u32 depth = 0);

  u32 GetType() const { return type_ & 0xFFFFFFF; }
  u32 GetDataLength() const;
  // Both null without data.
  const u8* GetDataBegin() const;
  const u8* GetDataEnd() const;
  // The data as text; empty without data. The view holds as long as the segment is there and its data stays as it is.
  std::string_view GetText() const;
  void GetString(std::string& out) const;

  // The data grows; not for a segment with children.
  void AppendData(const void* bytes, u32 length);
  // The data becomes the contents of a file, without a copy. False if the file can't be mapped.
  bool LoadData(const Path& path);
  // False without data, or if the file can't be written. `length`, if given, is set where there is data.
  bool SaveData(const Path& path, u32* length) const;

  // Not for a segment that was given data, even of length 0.
  void AddNested(Segment* segment);
  u32 GetNestedCount() const;
  rc_ptr<Segment> GetNested(u32 index) const;
  rc_ptr<Segment> FindNested(u32 type, u32 occurrence = 0) const;

  // As Message::Serialize; the list is not empty.
  u32 Serialize(Streams& out) const;

 private:
  using Nested = std::vector<rc_ptr<Segment>>;
  using Shared = rc_ptr<MemoryStream>;

  void ReadData(Stream& stream, u32 length);
  // The data as a stream that can grow or map a file.
  MemoryStream& MakeShared();

  u32 type_;
  std::variant<std::monostate, std::string, Shared, Nested> content_;
};

// Typed readers. Text always succeeds; a number only if the data has its width, and otherwise out stays as it was.
bool GetValue(const Message::Segment& segment, std::string& out);
bool GetValue(const Message::Segment& segment, Path& out);
bool GetValue(const Message::Segment& segment, u8& out);
bool GetValue(const Message::Segment& segment, i32& out);
bool GetValue(const Message::Segment& segment, u32& out);
bool GetValue(const Message::Segment& segment, std::int64_t& out);
bool GetValue(const Message::Segment& segment, u64& out);

}  // namespace kestrun

#endif  // KESTRUN_MESSAGING_MESSAGE_H_
