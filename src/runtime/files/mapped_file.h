// Views on a file, or on a named region of memory that processes share.
//
// A MappedFile owns its handles and knows its views; a view must be released before its MappedFile goes. Close leaves
// the views as objects without memory. There is no lock: one thread at a time makes and releases the views of a file.
// Access to the memory of a view is a matter of the processes and threads that share it. Everything that fails in a
// constructor or in CreateView throws MappedFileException, after closing what had been opened.
//
// GetLastWriteTime, GetPath, printing, and what a view tells of itself beside its memory and size are offered to users
// of the library; the program itself does not ask for them.
#ifndef KESTRUN_RUNTIME_FILES_MAPPED_FILE_H_
#define KESTRUN_RUNTIME_FILES_MAPPED_FILE_H_

#include <ostream>
#include <set>
#include <string>

#include "platform/win32.h"
#include "runtime/base/exception.h"
#include "runtime/base/rc_ptr.h"
#include "runtime/base/types.h"
#include "runtime/files/path.h"

namespace kestrun {

class MappedFileException : public SystemException {
 public:
  explicit MappedFileException(const std::string& message) : SystemException(message, "MappedFileException") {}
};

class MappedFile {
 public:
  class ViewImpl;

  // The access argument; any other value means read-only.
  static constexpr int kReadOnly = 0;
  static constexpr int kWritable = 1;
  // A view's size up to the end of the file or region.
  static constexpr u32 kWholeSize = 0xFFFFFFFF;

  // A file that exists. One that is writable here can't be opened a second time meanwhile.
  MappedFile(const Path& path, int access);
  // A named region: with `create` a new one of `size` bytes, a multiple of the page size, without it the existing one,
  // with a size of 0.
  MappedFile(const std::string& name, u32 size, bool create);
  MappedFile(const MappedFile&) = delete;
  MappedFile& operator=(const MappedFile&) = delete;
  ~MappedFile();

  // A view of a region has the size of the whole region, whatever `size` says.
  rc_ptr<ViewImpl> CreateView(u32 offset, u32 size, bool writable);

  // 0xFFFFFFFF for a region.
  u32 GetSize() const;
  // The file time as one number; 0 for a region.
  u64 GetLastWriteTime() const;
  std::string GetPath() const { return path_; }
  bool IsFileOpen() const { return file_ != INVALID_HANDLE_VALUE; }
  bool IsMapped() const { return mapping_ != INVALID_HANDLE_VALUE; }

  // Unmaps all views and closes the handles. False if the system refused to close one.
  bool Close();

  void Flush(void* address, u32 size);

 private:
  bool IsRegion() const { return file_ == nullptr; }
  void EnsureMapping();

  // INVALID_HANDLE_VALUE when closed, null for a region.
  HANDLE file_ = INVALID_HANDLE_VALUE;
  // INVALID_HANDLE_VALUE until there is one.
  HANDLE mapping_ = INVALID_HANDLE_VALUE;
  std::string path_;
  bool writable_ = false;
  std::set<ViewImpl*> views_;
};

class MappedFile::ViewImpl : public rc_base {
 public:
  ~ViewImpl() override;

  // Null when unmapped.
  void* GetData() const { return data_; }
  u32 GetSize() const { return size_; }
  u32 GetOffset() const { return offset_; }
  bool IsWritable() const { return writable_; }

  void Flush();
  // Flushes a writable view first.
  void Unmap();

 private:
  friend class MappedFile;
  ViewImpl(MappedFile* owner, u32 offset, bool writable);
  void Map(u32 size);

  MappedFile* owner_;
  u32 offset_;
  bool writable_;
  void* data_ = nullptr;
  u32 size_ = 0;
};

std::ostream& operator<<(std::ostream& out, const MappedFile& file);

}  // namespace kestrun

#endif  // KESTRUN_RUNTIME_FILES_MAPPED_FILE_H_
