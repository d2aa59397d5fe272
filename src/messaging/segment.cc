#include "messaging/segment.h"

#include <cstring>
#include <utility>

#include "messaging/format_exception.h"
#include "messaging/segment_list.h"
#include "messaging/wire_format.h"

namespace kestrun {

namespace {

// The highest bit of the type word tells a container from a leaf.
constexpr u32 kTypeMask = 0xFFFFFFF;
constexpr u32 kNestedBit = 0x80000000;

bool ReadWord(Stream& stream, u32& out) {
  return stream.Read(&out, sizeof out) == sizeof out;
}

void CheckLength(u32 length, const char* failure) {
  if (length > Segment::kMaxLength) throw FormatException(failure);
}

template <class T>
rc_ptr<Segment> FromBytes(u32 type, T value) {
  return new Segment(type, &value, sizeof value);
}

template <class T>
bool GetBytes(const Segment& segment, T& out) {
  if (segment.GetDataLength() != sizeof out) return false;
  std::memcpy(&out, segment.GetDataBegin(), sizeof out);
  return true;
}

}  // namespace

Segment::Segment(u32 type) : type_(type & kTypeMask) {}

Segment::Segment(u32 type, const void* bytes, u32 length) : type_(type & kTypeMask) {
  CheckLength(length, "Invalid (too long) segment-length;2");
  if (length > kSharedDataLimit) {
    content_ = Shared(new MemoryStream(const_cast<void*>(bytes), length, false));
  } else {
    content_.emplace<std::string>(static_cast<const char*>(bytes), length);
  }
}

Segment::Segment(Stream& stream, u32 length, u32 typeWord) : type_(typeWord) {
  CheckLength(length, "Invalid (too long) segment-length;1");
  ReadData(stream, length);
}

Segment::Segment(u32 type, u32 length, Stream& stream) : type_(type & kTypeMask) {
  CheckLength(length, "Invalid (too long) segment-length;3");
  ReadData(stream, length);
}

Segment::~Segment() = default;

void Segment::ReadData(Stream& stream, u32 length) {
  if (length > kSharedDataLimit) {
    auto* const memory = dynamic_cast<MemoryStream*>(&stream);
    content_ = memory != nullptr ? memory->TakeContent(length) : Shared(new MemoryStream(length, stream));
    return;
  }
  auto& text = content_.emplace<std::string>(length, '\0');
  if (length > 0 && stream.Read(text.data(), length) < length) throw StreamException("Out of memory");
}

rc_ptr<Segment> Segment::FromString(u32 type, const std::string& value) {
  CheckLength(value.size() > kMaxLength ? kMaxLength + 1 : static_cast<u32>(value.size()),
              "Invalid (too long) segment-length;2");
  return new Segment(type, value.data(), static_cast<u32>(value.size()));
}

rc_ptr<Segment> Segment::FromPath(u32 type, const Path& value) {
  return FromString(type, value.ToString());
}

rc_ptr<Segment> Segment::FromText(u32 type, const char* value) {
  return FromString(type, value);
}

rc_ptr<Segment> Segment::FromContent(u32 type, const rc_ptr<MemoryStream>& value) {
  const u32 length = value->GetSize();
  if (length <= kSharedDataLimit) return new Segment(type, std::as_const(*value).GetData(), length);
  CheckLength(length, "Invalid (too long) segment-length;2");
  rc_ptr<Segment> segment(new Segment(type));
  segment->content_ = value;
  return segment;
}

rc_ptr<Segment> Segment::FromU8(u32 type, u8 value) {
  return FromBytes(type, value);
}

rc_ptr<Segment> Segment::FromI32(u32 type, i32 value) {
  return FromBytes(type, value);
}

rc_ptr<Segment> Segment::FromU32(u32 type, u32 value) {
  return FromBytes(type, value);
}

rc_ptr<Segment> Segment::FromI64(u32 type, std::int64_t value) {
  return FromBytes(type, value);
}

rc_ptr<Segment> Segment::FromU64(u32 type, u64 value) {
  return FromBytes(type, value);
}

rc_ptr<Segment> Segment::Parse(Stream& stream, u32 depth) {
  u32 typeWord = 0;
  if (!ReadWord(stream, typeWord)) throw FormatException("Not enough bytes for segment type");
  u32 count = 0;
  if ((typeWord & kNestedBit) == 0) {
    if (!ReadWord(stream, count)) throw FormatException("Not enough bytes for segment length");
    // Compared with a sign: a length of 2 GiB or more is negative and passes, and is refused by CheckLength.
    if (static_cast<i32>(stream.GetAvailable()) < static_cast<i32>(count)) {
      throw FormatException("Not enough bytes for segment data");
    }
    CheckLength(count, "Invalid (too long) segment-length");
    return new Segment(stream, count, typeWord);
  }
  // Parse calls itself, and a hostile message must not use up the stack.
  if (depth >= kMaxDepth) throw FormatException("Segments nested too deeply");
  if (!ReadWord(stream, count)) throw FormatException("Not enough bytes for nested-segment count");
  rc_ptr<Segment> segment(new Segment(typeWord));
  // The count is not trusted: the list grows with the children that are really there.
  for (i32 left = static_cast<i32>(count); left > 0; --left) segment->AddNested(Parse(stream, depth + 1));
  return segment;
}

u32 Segment::GetDataLength() const {
  if (const auto* text = std::get_if<std::string>(&content_)) return static_cast<u32>(text->size());
  if (const auto* shared = std::get_if<Shared>(&content_)) return (*shared)->GetSize();
  return 0;
}

const u8* Segment::GetDataBegin() const {
  if (const auto* text = std::get_if<std::string>(&content_)) return reinterpret_cast<const u8*>(text->data());
  if (const auto* shared = std::get_if<Shared>(&content_)) return std::as_const(**shared).GetData();
  return nullptr;
}

const u8* Segment::GetDataEnd() const {
  const u8* begin = GetDataBegin();
  return begin != nullptr ? begin + GetDataLength() : nullptr;
}

std::string_view Segment::GetText() const {
  return {reinterpret_cast<const char*>(GetDataBegin()), GetDataLength()};
}

void Segment::GetString(std::string& out) const {
  out = GetText();
}

MemoryStream& Segment::MakeShared() {
  if (std::holds_alternative<Nested>(content_)) {
    throw FormatException("Cannot add data to a Segment containing nested Segments");
  }
  if (!std::holds_alternative<Shared>(content_)) {
    Shared stream(new MemoryStream());
    stream->Append(GetDataBegin(), GetDataLength());
    content_ = std::move(stream);
  }
  return *std::get<Shared>(content_);
}

void Segment::AppendData(const void* bytes, u32 length) {
  if (MakeShared().Append(bytes, length) != length) throw StreamException("Out of memory");
}

bool Segment::LoadData(const Path& path) {
  return MakeShared().MapFile(path);
}

bool Segment::SaveData(const Path& path, u32* length) const {
  if (const auto* shared = std::get_if<Shared>(&content_)) {
    if (length != nullptr) *length = (*shared)->GetSize();
    return (*shared)->SaveFile(path);
  }
  const auto* text = std::get_if<std::string>(&content_);
  if (text == nullptr) return false;
  if (length != nullptr) *length = static_cast<u32>(text->size());
  const rc_ptr<MemoryStream> stream(
      new MemoryStream(const_cast<char*>(text->data()), static_cast<u32>(text->size()), true));
  return stream->SaveFile(path);
}

void Segment::AddNested(const rc_ptr<Segment>& segment) {
  if (std::holds_alternative<std::monostate>(content_)) content_.emplace<Nested>();
  auto* nested = std::get_if<Nested>(&content_);
  if (nested == nullptr) throw FormatException("Cannot add a nested Segment to a Segment containing data.");
  nested->push_back(segment);
}

u32 Segment::GetNestedCount() const {
  const auto* nested = std::get_if<Nested>(&content_);
  return nested != nullptr ? static_cast<u32>(nested->size()) : 0;
}

rc_ptr<Segment> Segment::GetNested(u32 index) const {
  const auto* nested = std::get_if<Nested>(&content_);
  return nested != nullptr ? detail::At(*nested, index) : nullptr;
}

rc_ptr<Segment> Segment::FindNested(u32 type, u32 occurrence) const {
  const auto* nested = std::get_if<Nested>(&content_);
  return nested != nullptr ? detail::Find(*nested, type, occurrence) : nullptr;
}

u64 Segment::GetWireSize() const {
  u64 size = wire::kSegmentHeaderSize + u64{GetDataLength()};
  if (const auto* nested = std::get_if<Nested>(&content_)) {
    for (const auto& segment : *nested) size += segment->GetWireSize();
  }
  return size;
}

u32 Segment::MatchWire(const u8* bytes, u32 count) const {
  u32 words[2];
  const bool isComparable = std::holds_alternative<std::string>(content_) || std::holds_alternative<Nested>(content_);
  if (count < sizeof words || !isComparable) return 0;
  std::memcpy(words, bytes, sizeof words);
  const auto* nested = std::get_if<Nested>(&content_);
  const u32 length = nested != nullptr ? static_cast<u32>(nested->size()) : GetDataLength();
  if (words[0] != (nested != nullptr ? GetType() | kNestedBit : type_) || words[1] != length) return 0;
  u32 size = sizeof words;
  if (nested == nullptr) {
    const bool isEqual =
        count - size >= length && std::string_view(reinterpret_cast<const char*>(bytes) + size, length) == GetText();
    return isEqual ? size + length : 0;
  }
  for (const auto& segment : *nested) {
    const u32 matched = segment->MatchWire(bytes + size, count - size);
    if (matched == 0) return 0;
    size += matched;
  }
  return size;
}

void Segment::Serialize(Streams& out) const {
  Stream& last = *out.back();
  const u32 nestedCount = GetNestedCount();
  const u32 length = GetDataLength();
  const u32 words[] = {GetType() | (nestedCount > 0 ? kNestedBit : 0), nestedCount > 0 ? nestedCount : length};
  static_assert(sizeof words == wire::kSegmentHeaderSize);
  last.Write(words, sizeof words);
  for (u32 i = 0; i < nestedCount; ++i) GetNested(i)->Serialize(out);
  if (length > kSharedDataLimit) {
    out.push_back(rc_ptr<Stream>(std::get<Shared>(content_)));
    out.emplace_back(new MemoryStream());
  } else if (length > 0) {
    last.Write(GetDataBegin(), length);
  }
}

bool GetValue(const Segment& segment, std::string& out) {
  segment.GetString(out);
  return true;
}

bool GetValue(const Segment& segment, Path& out) {
  std::string text;
  segment.GetString(text);
  out = Path(text);
  return true;
}

bool GetValue(const Segment& segment, u8& out) {
  return GetBytes(segment, out);
}

bool GetValue(const Segment& segment, i32& out) {
  return GetBytes(segment, out);
}

bool GetValue(const Segment& segment, u32& out) {
  return GetBytes(segment, out);
}

bool GetValue(const Segment& segment, std::int64_t& out) {
  return GetBytes(segment, out);
}

bool GetValue(const Segment& segment, u64& out) {
  return GetBytes(segment, out);
}

}  // namespace kestrun
