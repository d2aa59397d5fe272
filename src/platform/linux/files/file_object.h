// Open files, and what else is read and written through a descriptor: pipes and devices derive from FileObject.
#ifndef KESTRUN_PLATFORM_LINUX_FILES_FILE_OBJECT_H_
#define KESTRUN_PLATFORM_LINUX_FILES_FILE_OBJECT_H_

#include <utility>

#include "platform/linux/base/file_descriptor.h"
#include "platform/linux/base/object.h"

namespace kestrun::platform {

// A handle that ReadFile and WriteFile take. The descriptor stays open until the last call that uses it is done.
//
// The three operations give false with the thread's last error set, and a count of 0. They may block, and may come from
// any thread.
class FileObject : public Object {
 public:
  static constexpr ObjectKind kKind = ObjectKind::kFile;

  explicit FileObject(FileDescriptor descriptor) : Object(kKind), descriptor_(std::move(descriptor)) {}

  int Descriptor() const { return descriptor_.get(); }

  // Reads once, up to `count` bytes of what is there; 0 bytes at the end of a file.
  virtual bool Read(void* buffer, DWORD count, DWORD* read);
  // Writes all bytes, or fails; `written` tells how many were written before the error.
  virtual bool Write(const void* buffer, DWORD count, DWORD* written);
  // PeekNamedPipe: copies without taking, and tells how much waits. Any pointer may be null. A disk file has no such
  // thing: ERROR_INVALID_FUNCTION.
  virtual bool Peek(void* buffer, DWORD size, DWORD* read, DWORD* available);

 private:
  FileDescriptor descriptor_;
};

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_FILES_FILE_OBJECT_H_
