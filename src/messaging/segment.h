// One part of a message: a type of 28 bits, and either data or nested segments, never both.
//
// A leaf of up to kSharedDataLimit bytes keeps them in itself; a larger one keeps a stream, which Serialize passes on
// without a copy, and which may be a part of the memory that the message was parsed from.
//
// Counted and shared between messages, without a lock: it does not change after its message has been sent or delivered.
//
// Bytes that can't be a segment, and a use that its content does not allow, are a FormatException.
#ifndef KESTRUN_MESSAGING_SEGMENT_H_
#define KESTRUN_MESSAGING_SEGMENT_H_

#include <cstdint>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "runtime/base/rc_ptr.h"
#include "runtime/base/types.h"
#include "runtime/files/memory_stream.h"
#include "runtime/files/path.h"
#include "runtime/files/stream.h"

namespace kestrun {

class Segment : public rc_base {
 public:
  using Streams = std::vector<rc_ptr<Stream>>;

  static constexpr u32 kMaxLength = 0x20000000;
  // Data up to this size is copied when a message is serialised; larger data is shared.
  static constexpr u32 kSharedDataLimit = 0x4000;
  // Segments within segments, when parsing.
  static constexpr u32 kMaxDepth = 64;

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

  // These three belong to the described interface; the program itself does not use them.
  // The data grows; not for a segment with children.
  void AppendData(const void* bytes, u32 length);
  // The data becomes the contents of a file, without a copy. False if the file can't be mapped.
  bool LoadData(const Path& path);
  // False without data, or if the file can't be written. `length`, if given, is set where there is data.
  bool SaveData(const Path& path, u32* length) const;

  // Not for a segment that was given data, even of length 0.
  void AddNested(const rc_ptr<Segment>& segment);
  u32 GetNestedCount() const;
  rc_ptr<Segment> GetNested(u32 index) const;
  rc_ptr<Segment> FindNested(u32 type, u32 occurrence = 0) const;

  // Bytes of the byte form, with all that is in it.
  u64 GetWireSize() const;
  // The size of this segment's byte form if the bytes begin with it, else 0. A segment without content, or with data
  // over kSharedDataLimit, is never found equal.
  u32 MatchWire(const u8* bytes, u32 count) const;
  // Appends the byte form to the list, which is not empty: data over kSharedDataLimit as a stream of its own, to be
  // written whole, and all else to the last stream.
  void Serialize(Streams& out) const;

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
bool GetValue(const Segment& segment, std::string& out);
bool GetValue(const Segment& segment, Path& out);
bool GetValue(const Segment& segment, u8& out);
bool GetValue(const Segment& segment, i32& out);
bool GetValue(const Segment& segment, u32& out);
bool GetValue(const Segment& segment, std::int64_t& out);
bool GetValue(const Segment& segment, u64& out);

}  // namespace kestrun

#endif  // KESTRUN_MESSAGING_SEGMENT_H_
