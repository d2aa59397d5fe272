#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>

#include "runtime/files/file_stream.h"
#include "runtime/files/memory_stream.h"
#include "support/expect_throw.h"
#include "support/names.h"

namespace kestrun {
namespace {

using test::ExpectThrow;
using test::TempFolder;

std::string Content(const MemoryStream& stream) {
  return std::string(reinterpret_cast<const char*>(stream.GetData()), stream.GetSize());
}

TEST(MemoryStream, ReadsToTheEndAndSeeksWithin) {
  MemoryStream stream;
  char buffer[8] = {};
  EXPECT_EQ(stream.Read(buffer, 8), 0u);
  stream.Write("abcdef", 6);
  EXPECT_EQ(stream.Read(buffer, 8), 0u);
  EXPECT_FALSE(stream.Seek(7));
  EXPECT_TRUE(stream.Seek(6));
  EXPECT_TRUE(stream.Seek(2));
  EXPECT_EQ(stream.GetAvailable(), 4u);
  EXPECT_EQ(stream.Read(buffer, 3), 3u);
  EXPECT_EQ(std::string(buffer, 3), "cde");
  EXPECT_EQ(stream.Read(buffer, 8), 1u);
  EXPECT_EQ(stream.GetPosition(), 6u);
  EXPECT_EQ(stream.GetMode(), 7u);
}

TEST(MemoryStream, WritesOverWhatIsThereAndAppendsBehindIt) {
  MemoryStream stream;
  stream.Write("abcd", 4);
  stream.Seek(1);
  stream.Write("XY", 2);
  EXPECT_EQ(Content(stream), "aXYd");
  stream.Write("123", 3);
  EXPECT_EQ(Content(stream), "aXY123");
  stream.Seek(0);
  EXPECT_EQ(stream.Append("end", 3), 3u);
  EXPECT_EQ(stream.Append("", 0), 0u);
  EXPECT_EQ(Content(stream), "aXY123end");
  EXPECT_EQ(stream.GetPosition(), 0u);
}

TEST(MemoryStream, CopiesOrWrapsForeignMemory) {
  char memory[] = "abc";
  MemoryStream copy(memory, 3, false);
  MemoryStream wrapped(memory, 3, true);
  memory[0] = 'X';
  EXPECT_EQ(Content(copy), "abc");
  EXPECT_EQ(copy.GetCapacity(), 3u);
  EXPECT_EQ(Content(wrapped), "Xbc");
  ExpectThrow<StreamException>([&] { wrapped.Write("z", 1); }, "Out of memory", -1);
  EXPECT_EQ(wrapped.Append("z", 1), 0u);
  EXPECT_EQ(wrapped.ReadFrom(copy), MemoryStream::kReadFailed);
  EXPECT_FALSE(wrapped.MapFile("whatever"));
}

TEST(MemoryStream, TakenContentStaysWhateverHappensToItsSource) {
  const std::string text = "headlarge contenttail";
  const std::function<void(MemoryStream&)> changes[] = {
      [](MemoryStream& s) { s.Close(); },
      [](MemoryStream& s) { s.Clear(), s.Append("XXXXXXXXXXXXXXXXXXXXX", 21); },
      [](MemoryStream& s) { s.Seek(0), s.Write("XXXXXXXXXXXXXXXXXXXXX", 21); },
      [](MemoryStream& s) { s.Append(std::string(100000, 'X').data(), 100000); },
  };
  for (const auto& change : changes) {
    MemoryStream source(const_cast<char*>(text.data()), static_cast<u32>(text.size()), false);
    source.Seek(4);
    const rc_ptr<MemoryStream> taken = source.TakeContent(13);
    EXPECT_EQ(taken->GetData(), source.GetData() + 4);
    EXPECT_EQ(source.GetPosition(), 17u);
    ExpectThrow<StreamException>([&] { source.TakeContent(5); }, "Out of memory", -1);
    change(source);
    EXPECT_EQ(Content(*taken), "large content");
    taken->Append("!", 1);
    taken->Write("L", 1);
    EXPECT_EQ(Content(*taken), "Large content!");
  }
  MemoryStream source(const_cast<char*>(text.data()), static_cast<u32>(text.size()), false);
  EXPECT_NE(source.TakeContent(4)->GetData(), source.GetData());
  const rc_ptr<MemoryStream> taken = source.TakeContent(13);
  taken->Seek(0), taken->Write("S", 1);
  EXPECT_EQ(Content(source), text);
}

TEST(FileStream, ReadsWritesAndSeeks) {
  TempFolder folder;
  FileStream stream(CreateFileA(folder.File("f").c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                                FILE_ATTRIBUTE_NORMAL, nullptr),
                    Stream::kReadable | Stream::kWritable | Stream::kSeekable);
  EXPECT_EQ(stream.Write("abcdef", 6), 6u);
  EXPECT_EQ(stream.GetPosition(), 6u);
  EXPECT_TRUE(stream.Seek(2));
  char buffer[8] = {};
  EXPECT_EQ(stream.Read(buffer, 8), 4u);
  EXPECT_EQ(std::string(buffer, 4), "cdef");
  ExpectThrow<StreamException>([&] { stream.Read(buffer, 8); }, "end of stream", 0, "StreamException");
  stream.Close();
  ExpectThrow<StreamException>([&] { stream.Read(buffer, 8); }, "error in FileStream::Read()", ERROR_INVALID_HANDLE);
  ExpectThrow<StreamException>([&] { stream.Write("x", 1); }, "In FileStream::Write()", ERROR_INVALID_HANDLE);
}

TEST(PipeStream, GivesWhatIsThereAndThrowsAtTheEnd) {
  HANDLE readEnd = nullptr, writeEnd = nullptr;
  ASSERT_TRUE(CreatePipe(&readEnd, &writeEnd, nullptr, 0));
  rc_ptr<PipeStream> reader(new PipeStream(readEnd, false));
  rc_ptr<PipeStream> writer(new PipeStream(writeEnd, true));
  EXPECT_EQ(reader->GetMode(), 1u);
  EXPECT_EQ(writer->GetMode(), 3u);
  EXPECT_EQ(reader->GetAvailable(), 0u);
  EXPECT_FALSE(reader->Seek(0));
  writer->Write("hello", 5);
  EXPECT_EQ(reader->GetAvailable(), 5u);
  writer->Close();
  MemoryStream collected;
  EXPECT_EQ(collected.ReadFrom(*reader), 5u);
  EXPECT_EQ(Content(collected), "hello");
  char byte;
  ExpectThrow<StreamException>([&] { reader->Read(&byte, 1); }, "error in FileStream::Read()", ERROR_BROKEN_PIPE);
  EXPECT_EQ(reader->GetAvailable(), 0u);
}

}  // namespace
}  // namespace kestrun
