#include "runtime/files/file_stream.h"

namespace kestrun {

namespace {

StreamException SystemFailure(const char* text) {
  return StreamException(static_cast<i32>(GetLastError()), text);
}

}  // namespace

u32 FileStream::GetPosition() {
  return SetFilePointer(handle_.Get(), 0, nullptr, FILE_CURRENT);
}

bool FileStream::Seek(u32 position) {
  return SetFilePointer(handle_.Get(), static_cast<LONG>(position), nullptr, FILE_BEGIN) != INVALID_SET_FILE_POINTER;
}

u32 FileStream::Read(void* buffer, u32 count) {
  DWORD read = 0;
  if (!ReadFile(handle_.Get(), buffer, count, &read, nullptr)) throw SystemFailure("error in FileStream::Read()");
  // The end of a file; a pipe's end is an error of ReadFile.
  if (read == 0) throw StreamException(0, "end of stream");
  return read;
}

u32 FileStream::Write(const void* buffer, u32 count) {
  DWORD written = 0;
  if (!WriteFile(handle_.Get(), buffer, count, &written, nullptr) || written < count) {
    throw SystemFailure("In FileStream::Write()");
  }
  return written;
}

PipeStream::PipeStream(HANDLE handle, bool writable)
    : FileStream(handle, GetFileType(handle) != FILE_TYPE_PIPE ? 0
                         : writable                            ? kReadable | kWritable
                                                               : kReadable) {}

u32 PipeStream::GetAvailable() {
  DWORD available = 0;
  return PeekNamedPipe(GetHandle(), nullptr, 0, nullptr, &available, nullptr) ? available : 0;
}

}  // namespace kestrun
