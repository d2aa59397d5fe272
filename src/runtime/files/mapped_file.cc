#include "runtime/files/mapped_file.h"

#include "runtime/threads/sync.h"

namespace kestrun {

namespace {

const char* const kNoView = "Could not create view onto MappedFile ";

u32 PageSize() {
  static const u32 size = [] {
    SYSTEM_INFO info;
    GetSystemInfo(&info);
    return static_cast<u32>(info.dwPageSize);
  }();
  return size;
}

HANDLE CreateRegion(const std::string& name, u32 size) {
  if (size == 0) throw MappedFileException("Cannot create anonymous mapped region of size zero!");
  HANDLE mapping =
      CreateFileMappingA(INVALID_HANDLE_VALUE, SharedSecurityAttributes(), PAGE_READWRITE, 0, size, name.c_str());
  if (mapping == nullptr) throw MappedFileException("Cannot map file: " + name);
  // The system would hand out the existing region, whose size and content another process has chosen.
  if (GetLastError() == ERROR_ALREADY_EXISTS) {
    CloseHandle(mapping);
    throw MappedFileException("Mapping already exists");
  }
  return mapping;
}

HANDLE OpenRegion(const std::string& name, u32 size) {
  if (size != 0) throw MappedFileException("Opening anonymous mapped region, size must be zero");
  HANDLE mapping = OpenFileMappingA(FILE_MAP_ALL_ACCESS, FALSE, name.c_str());
  if (mapping == nullptr) throw MappedFileException("Mapping does not exist");
  return mapping;
}

}  // namespace

MappedFile::MappedFile(const Path& path, int access) : path_(path.ToString()), writable_(access == kWritable) {
  DWORD rights = writable_ ? GENERIC_READ | GENERIC_WRITE : GENERIC_READ;
  // A writer excludes all others; readers share with readers.
  DWORD sharing = writable_ ? 0 : FILE_SHARE_READ;
  DWORD attributes = writable_ ? FILE_ATTRIBUTE_NORMAL : FILE_ATTRIBUTE_READONLY;
  file_ = CreateFileA(path_.c_str(), rights, sharing, nullptr, OPEN_EXISTING, attributes, nullptr);
  if (file_ == INVALID_HANDLE_VALUE) throw MappedFileException("Cannot open file: " + path_);
}

MappedFile::MappedFile(const std::string& name, u32 size, bool create) : file_(nullptr), writable_(true) {
  if (PageSize() == 0) throw MappedFileException("Cannot determine system page size!");
  if (size % PageSize() != 0) throw MappedFileException("Mapping size must be a multiple of system page size");
  mapping_ = create ? CreateRegion(name, size) : OpenRegion(name, size);
}

MappedFile::~MappedFile() {
  Close();
}

rc_ptr<MappedFile::ViewImpl> MappedFile::CreateView(u32 offset, u32 size, bool writable) {
  EnsureMapping();
  rc_ptr<ViewImpl> view(new ViewImpl(this, offset, writable));
  view->Map(size);
  return view;
}

void MappedFile::EnsureMapping() {
  if (IsMapped()) return;
  // A closed file has INVALID_HANDLE_VALUE, with which the system would make a region of memory.
  HANDLE mapping = nullptr;
  if (IsFileOpen()) {
    mapping = CreateFileMappingA(file_, nullptr, writable_ ? PAGE_READWRITE : PAGE_READONLY, 0, 0, nullptr);
  }
  if (mapping == nullptr) {
    // The system refuses to map an empty file; callers get the error of a view that can't be made.
    bool isEmpty = IsFileOpen() && GetLastError() == ERROR_FILE_INVALID;
    MappedFileException failure((isEmpty ? kNoView : "Cannot map file: ") + path_);
    Close();
    throw failure;
  }
  mapping_ = mapping;
}

u32 MappedFile::GetSize() const {
  return IsRegion() ? kWholeSize : GetFileSize(file_, nullptr);
}

u64 MappedFile::GetLastWriteTime() const {
  FILETIME time;
  if (IsRegion() || !GetFileTime(file_, nullptr, nullptr, &time)) return 0;
  return static_cast<u64>(time.dwHighDateTime) << 32 | time.dwLowDateTime;
}

bool MappedFile::Close() {
  for (ViewImpl* view : views_) view->Unmap();
  bool closed = true;
  if (IsMapped() && mapping_ != nullptr) closed = CloseHandle(mapping_) != FALSE;
  mapping_ = INVALID_HANDLE_VALUE;
  if (IsFileOpen() && !IsRegion()) closed = CloseHandle(file_) != FALSE && closed;
  file_ = INVALID_HANDLE_VALUE;
  path_.clear();
  return closed;
}

void MappedFile::Flush(void* address, u32 size) {
  FlushViewOfFile(address, size);
}

MappedFile::ViewImpl::ViewImpl(MappedFile* owner, u32 offset, bool writable)
    : owner_(owner), offset_(offset), writable_(writable) {
  owner_->views_.insert(this);
}

MappedFile::ViewImpl::~ViewImpl() {
  Unmap();
  owner_->views_.erase(this);
}

void MappedFile::ViewImpl::Map(u32 size) {
  SIZE_T bytes = size == kWholeSize ? 0 : size;
  data_ = MapViewOfFile(owner_->mapping_, writable_ ? FILE_MAP_WRITE : FILE_MAP_READ, 0, offset_, bytes);
  if (data_ == nullptr) throw MappedFileException(kNoView + owner_->path_);
  size_ = size == kWholeSize ? owner_->GetSize() : size;
  if (!owner_->IsRegion()) return;
  // The size of a region is not part of its name, so the system is asked.
  MEMORY_BASIC_INFORMATION region;
  if (VirtualQuery(data_, &region, sizeof(region)) == 0) {
    throw MappedFileException("Could not get region size for view in MappedFile " + owner_->path_);
  }
  size_ = static_cast<u32>(region.RegionSize);
}

void MappedFile::ViewImpl::Flush() {
  if (data_ != nullptr) FlushViewOfFile(data_, size_);
}

void MappedFile::ViewImpl::Unmap() {
  if (data_ == nullptr) return;
  if (writable_) Flush();
  UnmapViewOfFile(data_);
  data_ = nullptr;
  size_ = 0;
}

std::ostream& operator<<(std::ostream& out, const MappedFile& file) {
  return out << "MappedFile:" << file.GetPath();
}

}  // namespace kestrun
