// Mappings of shared memory and of disk files, and the views of them.
//
// The memory of a mapping is reserved when it is made. Otherwise a store into a page for which the file system has no
// room would be a SIGBUS, at some later moment and in some other process.
#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <iterator>
#include <map>
#include <mutex>

#include "platform/api/sync_api.h"
#include "platform/linux/base/never_destroyed.h"
#include "platform/linux/files/file_object.h"
#include "platform/linux/objects/handle_table.h"
#include "platform/linux/objects/named_object.h"
#include "platform/linux/objects/object_folder.h"

namespace kestrun::platform {

namespace {

std::size_t PageSize() {
  static const auto size = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  return size;
}

std::size_t RoundUpToPage(std::size_t bytes) {
  return (bytes + PageSize() - 1) & ~(PageSize() - 1);
}

// An object of which views can be made: a region of memory, with or without a name, or a disk file. A region with a
// name is a file of the object folder, one without a name a memfd.
class Mapping : public Object {
 public:
  static constexpr ObjectKind kKind = ObjectKind::kMapping;

  Mapping(std::unique_ptr<NamedObject> name, std::uint64_t size)
      : Object(kKind), name_(std::move(name)), size_(size), writable_(true) {}
  Mapping(FileDescriptor file, std::uint64_t size, bool writable)
      : Object(kKind), file_(std::move(file)), size_(size), writable_(writable) {}

  std::uint64_t size() const { return size_; }
  bool isWritable() const { return writable_; }

  // MAP_FAILED with errno.
  void* Map(std::uint64_t offset, std::size_t length, int protection) {
    if (name_) return name_->MapData(offset, length, protection);
    return mmap(nullptr, length, protection, MAP_SHARED, file_.get(), static_cast<off_t>(offset));
  }

  void LastHandleClosed() override {
    if (name_) name_->Release();
  }

  std::uint32_t HandleCount() override {
    const std::uint32_t own = OwnHandles();
    return own == 1 && name_ && name_->IsHeldElsewhere() ? 2 : own;
  }

 private:
  const std::unique_ptr<NamedObject> name_;
  const FileDescriptor file_;
  const std::uint64_t size_;
  const bool writable_;
};

struct View {
  std::size_t length = 0;
  bool writable = false;
};

// The views of this process by address, because UnmapViewOfFile gets no length.
class Views {
 public:
  static Views& Get() {
    static NeverDestroyed<Views> views;
    return views.get();
  }

  void Add(void* address, const View& view) {
    const std::lock_guard guard(lock_);
    views_[reinterpret_cast<std::uintptr_t>(address)] = view;
  }

  // Unmaps under the lock: as soon as the address is free, another thread may get a view there, whose entry must not be
  // removed.
  bool Remove(const void* address) {
    const std::lock_guard guard(lock_);
    const auto found = views_.find(reinterpret_cast<std::uintptr_t>(address));
    if (found == views_.end()) return false;
    munmap(reinterpret_cast<void*>(found->first), found->second.length);
    views_.erase(found);
    return true;
  }

  // The view in which the address lies.
  bool Find(const void* address, std::uintptr_t* base, View* view) {
    const auto wanted = reinterpret_cast<std::uintptr_t>(address);
    const std::lock_guard guard(lock_);
    auto after = views_.upper_bound(wanted);
    if (after == views_.begin()) return false;
    const auto found = std::prev(after);
    if (wanted - found->first >= found->second.length) return false;
    *base = found->first;
    *view = found->second;
    return true;
  }

 private:
  std::mutex lock_;
  std::map<std::uintptr_t, View> views_;
};

HANDLE Fail(DWORD error) {
  SetLastError(error);
  return nullptr;
}

// True for half of the machine's memory or more. The kernel would reserve memory for a file as long as there is any,
// and then kill processes to get more.
bool IsBeyondMemory(std::uint64_t size) {
  const auto pages = static_cast<std::uint64_t>(sysconf(_SC_PHYS_PAGES));
  return size / PageSize() >= pages / 2;
}

HANDLE MapNamedRegion(std::uint64_t size, const char* name) {
  bool existed = false;
  std::unique_ptr<NamedObject> hold = NamedObject::CreateOrOpen(
      Mapping::kKind, name, RoundUpToPage(size), [](ObjectHeader&) {}, &existed);
  if (!hold) return nullptr;
  const std::uint64_t real = hold->memory()->dataSize;
  const HANDLE handle = AllocateHandle(std::make_shared<Mapping>(std::move(hold), real));
  if (handle) SetLastError(existed ? ERROR_ALREADY_EXISTS : ERROR_SUCCESS);
  return handle;
}

HANDLE MapAnonymousRegion(std::uint64_t size) {
  FileDescriptor file(memfd_create("kestrun", MFD_CLOEXEC));
  if (!file) return Fail(Win32ErrorFromErrno(errno));
  const int error = ReserveSpace(file.get(), 0, RoundUpToPage(size));
  if (error != 0) return Fail(Win32ErrorFromErrno(error));
  const HANDLE handle = AllocateHandle(std::make_shared<Mapping>(std::move(file), RoundUpToPage(size), true));
  if (handle) SetLastError(ERROR_SUCCESS);
  return handle;
}

HANDLE MapDiskFile(HANDLE handle, DWORD protect, std::uint64_t size) {
  const auto file = LookUp<FileObject>(handle);
  if (!file) return nullptr;
  struct stat status {};
  // A pipe or a device can't be mapped as a file.
  if (fstat(file->Descriptor(), &status) != 0 || !S_ISREG(status.st_mode)) return Fail(ERROR_INVALID_HANDLE);
  const auto fileSize = static_cast<std::uint64_t>(status.st_size);
  const bool writable = protect == PAGE_READWRITE;
  if (writable && (fcntl(file->Descriptor(), F_GETFL) & O_ACCMODE) != O_RDWR) return Fail(ERROR_ACCESS_DENIED);
  if (size == 0) size = fileSize;
  if (size == 0) return Fail(ERROR_FILE_INVALID);
  if (size > fileSize) {
    if (!writable) return Fail(ERROR_NOT_ENOUGH_MEMORY);
    const int error = ReserveSpace(file->Descriptor(), 0, size);
    if (error != 0) return Fail(Win32ErrorFromErrno(error));
  }
  FileDescriptor own(fcntl(file->Descriptor(), F_DUPFD_CLOEXEC, 0));
  if (!own) return Fail(Win32ErrorFromErrno(errno));
  const HANDLE mapping = AllocateHandle(std::make_shared<Mapping>(std::move(own), size, writable));
  if (mapping) SetLastError(ERROR_SUCCESS);
  return mapping;
}

}  // namespace

}  // namespace kestrun::platform

using namespace kestrun::platform;

HANDLE CreateFileMappingA(HANDLE file, LPSECURITY_ATTRIBUTES, DWORD protect, DWORD sizeHigh, DWORD sizeLow,
                          LPCSTR name) {
  if (protect != PAGE_READONLY && protect != PAGE_READWRITE) return Fail(ERROR_INVALID_PARAMETER);
  const std::uint64_t size = (static_cast<std::uint64_t>(sizeHigh) << 32) | sizeLow;
  if (file != INVALID_HANDLE_VALUE) return HasName(name) ? Fail(ERROR_NOT_SUPPORTED) : MapDiskFile(file, protect, size);
  if (size == 0) return Fail(ERROR_INVALID_PARAMETER);
  if (IsBeyondMemory(size)) return Fail(ERROR_NOT_ENOUGH_MEMORY);
  return HasName(name) ? MapNamedRegion(size, name) : MapAnonymousRegion(size);
}

HANDLE OpenFileMappingA(DWORD, BOOL, LPCSTR name) {
  if (!HasName(name)) return Fail(ERROR_INVALID_PARAMETER);
  std::unique_ptr<NamedObject> hold = NamedObject::Open(Mapping::kKind, name);
  if (!hold) return nullptr;
  const std::uint64_t size = hold->memory()->dataSize;
  return AllocateHandle(std::make_shared<Mapping>(std::move(hold), size));
}

LPVOID MapViewOfFile(HANDLE mapping, DWORD access, DWORD offsetHigh, DWORD offsetLow, SIZE_T bytes) {
  const auto object = LookUp<Mapping>(mapping);
  if (!object) return nullptr;
  const std::uint64_t offset = (static_cast<std::uint64_t>(offsetHigh) << 32) | offsetLow;
  if (offset % PageSize() != 0) return Fail(ERROR_MAPPED_ALIGNMENT);
  if (offset >= object->size() || bytes > object->size() - offset) return Fail(ERROR_ACCESS_DENIED);
  const bool writable = (access & FILE_MAP_WRITE) != 0;
  if (writable && !object->isWritable()) return Fail(ERROR_ACCESS_DENIED);
  const auto length = static_cast<std::size_t>(bytes != 0 ? bytes : object->size() - offset);
  void* address = object->Map(offset, length, writable ? PROT_READ | PROT_WRITE : PROT_READ);
  if (address == MAP_FAILED) return Fail(Win32ErrorFromErrno(errno));
  // A forked child must not inherit the view, which would keep the file's locks alive (object_table.cc).
  madvise(address, length, MADV_DONTFORK);
  Views::Get().Add(address, {length, writable});
  return address;
}

BOOL UnmapViewOfFile(LPCVOID address) {
  if (Views::Get().Remove(address)) return TRUE;
  SetLastError(ERROR_INVALID_ADDRESS);
  return FALSE;
}

BOOL FlushViewOfFile(LPCVOID address, SIZE_T) {
  // Nothing to do: a view is the page cache itself, so other processes see each store at once, and the kernel writes it
  // out in its own time.
  std::uintptr_t base;
  View view;
  if (Views::Get().Find(address, &base, &view)) return TRUE;
  SetLastError(ERROR_INVALID_ADDRESS);
  return FALSE;
}

SIZE_T VirtualQuery(LPCVOID address, MEMORY_BASIC_INFORMATION* information, SIZE_T length) {
  std::uintptr_t base;
  View view;
  if (length < sizeof *information || !Views::Get().Find(address, &base, &view)) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
  }
  const std::uintptr_t page = reinterpret_cast<std::uintptr_t>(address) & ~(PageSize() - 1);
  *information = {};
  information->BaseAddress = reinterpret_cast<PVOID>(page);
  information->AllocationBase = reinterpret_cast<PVOID>(base);
  information->AllocationProtect = view.writable ? PAGE_READWRITE : PAGE_READONLY;
  information->Protect = information->AllocationProtect;
  information->RegionSize = base + RoundUpToPage(view.length) - page;
  information->State = MEM_COMMIT;
  information->Type = MEM_MAPPED;
  return sizeof *information;
}

void GetSystemInfo(SYSTEM_INFO* information) {
  *information = {};
  information->dwPageSize = static_cast<DWORD>(PageSize());
  information->dwAllocationGranularity = information->dwPageSize;
  // The C library would read a file of /sys for this number.
  cpu_set_t processors;
  const bool isKnown = sched_getaffinity(0, sizeof processors, &processors) == 0;
  information->dwNumberOfProcessors = isKnown ? static_cast<DWORD>(CPU_COUNT(&processors)) : 1;
  information->dwActiveProcessorMask = information->dwNumberOfProcessors >= sizeof(DWORD_PTR) * 8
                                           ? ~DWORD_PTR{0}
                                           : (DWORD_PTR{1} << information->dwNumberOfProcessors) - 1;
}
