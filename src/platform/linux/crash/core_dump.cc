// MiniDumpWriteDump: a core file of this process, written by the process itself.
//
// The other threads are stopped, perhaps while they held the heap's lock, so nothing here allocates memory or takes a
// lock; what is needed comes from one block of fresh pages (Scratch). Memory is written by the kernel straight from
// where it is, so that a page that can't be read is an error of that write and no second fault. Pages that were never
// touched become holes of the file.
//
// The kernel's own core files are no substitute: they are mostly off, and go where the administrator has set.
#include <elf.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/api/diagnostics_api.h"
#include "platform/linux/base/file_descriptor.h"
#include "platform/linux/crash/core_notes.h"
#include "platform/linux/crash/fault_signals.h"
#include "platform/linux/crash/memory_map.h"
#include "platform/linux/files/file_object.h"
#include "platform/linux/objects/handle_table.h"

namespace kestrun::platform {

namespace {

constexpr std::size_t kScratchSize = 128 << 20;
// The number of program headers has 16 bits, and 0xFFFF has a meaning of its own.
constexpr std::size_t kMostSegments = 60000;
constexpr std::uint64_t kSmallBlock = 1 << 20;
// How far below its stack the stack pointer may be of a thread that has overflowed the stack.
constexpr std::uint64_t kOverflow = 256 << 10;
// Ranges larger than this are reservations, such as a sanitizer's shadow memory; asking the kernel for each of their
// pages would take hours.
constexpr std::uint64_t kLargestRange = 64ull << 30;

#if defined(__x86_64__)
constexpr Elf64_Half kMachine = EM_X86_64;
#elif defined(__aarch64__)
constexpr Elf64_Half kMachine = EM_AARCH64;
#endif

bool WriteAt(int file, const void* data, std::uint64_t size, std::uint64_t offset) {
  const char* next = static_cast<const char*>(data);
  while (size > 0) {
    const ssize_t put = pwrite(file, next, size, static_cast<off_t>(offset));
    if (put < 0 && errno == EINTR) continue;
    if (put <= 0) return false;
    next += put;
    offset += static_cast<std::uint64_t>(put);
    size -= static_cast<std::uint64_t>(put);
  }
  return true;
}

class CoreWriter {
 public:
  CoreWriter(int file, bool wantsAll, const CoreThread* threads, std::size_t threadCount)
      : file_(file), wantsAll_(wantsAll), threads_(threads), threadCount_(threadCount) {}

  // False with errno set.
  bool Write() {
    map_ = ReadMemoryMap(scratch_);
    const Bytes notes = MakeCoreNotes(threads_, threadCount_, map_, scratch_);
    const std::size_t segments = std::min(map_.count, kMostSegments);
    auto* const headers = scratch_.TakeArray<Elf64_Phdr>(segments + 1);
    if (notes.size == 0 || headers == nullptr) {
      errno = ENOMEM;
      return false;
    }
    const std::uint64_t notesAt = sizeof(Elf64_Ehdr) + (segments + 1) * sizeof(Elf64_Phdr);
    headers[0].p_type = PT_NOTE;
    headers[0].p_offset = notesAt;
    headers[0].p_filesz = notes.size;
    headers[0].p_align = 4;
    std::uint64_t end = notesAt + notes.size;
    for (std::size_t i = 0; i < segments; ++i) {
      end = (end + pageSize_ - 1) / pageSize_ * pageSize_;
      headers[i + 1] = Describe(map_.ranges[i], end);
      end += headers[i + 1].p_filesz;
    }
    return ftruncate(file_, static_cast<off_t>(end)) == 0 && WriteHead(headers, segments + 1, notes) &&
           WriteMemory(headers + 1, segments);
  }

 private:
  // The layout of /proc/self/pagemap: one word a page.
  static constexpr std::uint64_t kBatch = 512;
  static constexpr std::uint64_t kPresentOrSwapped = 3ull << 62;
  static constexpr std::uint64_t kOfFile = 1ull << 61;

  bool WriteHead(const Elf64_Phdr* headers, std::size_t count, const Bytes& notes) {
    Elf64_Ehdr head{};
    std::memcpy(head.e_ident, ELFMAG, SELFMAG);
    head.e_ident[EI_CLASS] = ELFCLASS64;
    head.e_ident[EI_DATA] = ELFDATA2LSB;
    head.e_ident[EI_VERSION] = EV_CURRENT;
    head.e_type = ET_CORE;
    head.e_machine = kMachine;
    head.e_version = EV_CURRENT;
    head.e_phoff = sizeof head;
    head.e_ehsize = sizeof head;
    head.e_phentsize = sizeof(Elf64_Phdr);
    head.e_phnum = static_cast<Elf64_Half>(count);
    const std::uint64_t headersSize = count * sizeof(Elf64_Phdr);
    return WriteAt(file_, &head, sizeof head, 0) && WriteAt(file_, headers, headersSize, sizeof head) &&
           WriteAt(file_, notes.data, notes.size, sizeof head + headersSize);
  }

  Elf64_Phdr Describe(const MappedRange& range, std::uint64_t offset) const {
    Elf64_Phdr header{};
    header.p_type = PT_LOAD;
    header.p_flags = (range.isReadable ? PF_R : 0u) | (range.isWritable ? PF_W : 0u) | (range.isExecutable ? PF_X : 0u);
    header.p_offset = offset;
    header.p_vaddr = range.start;
    header.p_memsz = range.Size();
    header.p_filesz = ContentSize(range);
    header.p_align = pageSize_;
    return header;
  }

  // How many bytes of a range go into the core file, from the range's start on.
  std::uint64_t ContentSize(const MappedRange& range) const {
    const bool isKernels = std::strncmp(range.name, "[v", 2) == 0 && !IsVdso(range);
    if (!range.isReadable || isKernels || scratch_.Holds(range.start) || range.Size() > kLargestRange) return 0;
    // What a mapped file contains anyway is left out, except for its first page, by which a debugger recognises the
    // file.
    if (range.HasFile() && !range.isWritable && !IsChanged(range)) return range.offset == 0 ? pageSize_ : 0;
    if (wantsAll_ || IsVdso(range) || IsStack(range)) return range.Size();
    // Small anonymous blocks contain what the loader tells a debugger, and the zero-initialised data of the program.
    const bool isData = range.HasFile() ? !range.isShared : range.Size() <= kSmallBlock;
    return isData ? range.Size() : 0;
  }

  static bool IsVdso(const MappedRange& range) { return std::strcmp(range.name, "[vdso]") == 0; }

  // True if a page of a file's mapping is this process's own copy: the loader writes addresses into parts that it makes
  // read-only after that.
  bool IsChanged(const MappedRange& range) const {
    for (std::uint64_t address = range.start; address < range.end; address += kBatch * pageSize_) {
      std::uint64_t entries[kBatch];
      const std::uint64_t count = std::min(kBatch, (range.end - address) / pageSize_);
      ReadPageMap(address, count, entries);
      const auto isOwn = [](std::uint64_t entry) { return (entry & kPresentOrSwapped) != 0 && (entry & kOfFile) == 0; };
      if (std::any_of(entries, entries + count, isOwn)) return true;
    }
    return false;
  }

  // Reads one word of /proc/self/pagemap for each page. If that can't be read, all pages count as present and own.
  void ReadPageMap(std::uint64_t address, std::uint64_t count, std::uint64_t* entries) const {
    const auto wanted = static_cast<ssize_t>(count * sizeof *entries);
    const auto offset = static_cast<off_t>(address / pageSize_ * sizeof *entries);
    const bool known = pages_ && pread(pages_.get(), entries, count * sizeof *entries, offset) == wanted;
    if (!known) std::fill_n(entries, count, kPresentOrSwapped);
  }

  bool IsStack(const MappedRange& range) const {
    return std::any_of(threads_, threads_ + threadCount_,
                       [&](const CoreThread& thread) { return StackOf(StackPointer(*thread.context)) == &range; });
  }

  // The range at which a stack pointer points, or the next one above it if the thread has overflowed its stack.
  const MappedRange* StackOf(std::uint64_t pointer) const {
    for (std::size_t i = 0; i < map_.count && map_.ranges[i].start <= pointer + kOverflow; ++i) {
      if (map_.ranges[i].end > pointer && map_.ranges[i].isReadable) return &map_.ranges[i];
    }
    return nullptr;
  }

  bool WriteMemory(const Elf64_Phdr* headers, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
      ExtendFaultLimit();
      const MappedRange& range = map_.ranges[i];
      const bool isWhole = range.HasFile() || IsVdso(range);
      if (isWhole ? !WritePages(headers[i], 0, headers[i].p_filesz / pageSize_) : !WriteUsedPages(headers[i]))
        return false;
    }
    return true;
  }

  // Writes only the pages that are in memory or in swap; the others are zero.
  bool WriteUsedPages(const Elf64_Phdr& header) {
    const std::uint64_t pageCount = header.p_filesz / pageSize_;
    for (std::uint64_t first = 0; first < pageCount; first += kBatch) {
      const std::uint64_t count = std::min(kBatch, pageCount - first);
      std::uint64_t entries[kBatch];
      ReadPageMap(header.p_vaddr + first * pageSize_, count, entries);
      for (std::uint64_t i = 0, start = 0; i < count; start = ++i) {
        while (i < count && (entries[i] & kPresentOrSwapped) != 0) ++i;
        if (i > start && !WritePages(header, first + start, i - start)) return false;
      }
    }
    return true;
  }

  // Writes some pages; one that can't be read stays a hole of the file.
  bool WritePages(const Elf64_Phdr& header, std::uint64_t first, std::uint64_t count) {
    std::uint64_t at = first * pageSize_;
    const std::uint64_t end = at + count * pageSize_;
    while (at < end) {
      const auto* const memory = reinterpret_cast<const char*>(header.p_vaddr + at);
      // Not the C library's pwrite, which a sanitizer intercepts and which then checks memory that must not be touched.
      const long put = syscall(SYS_pwrite64, file_, memory, end - at, static_cast<off_t>(header.p_offset + at));
      if (put > 0) {
        at += static_cast<std::uint64_t>(put);
      } else if (put < 0 && (errno == EFAULT || errno == EIO)) {
        at = (at / pageSize_ + 1) * pageSize_;
      } else if (put == 0 || errno != EINTR) {
        return false;
      }
    }
    return true;
  }

  const int file_;
  const bool wantsAll_;
  const CoreThread* const threads_;
  const std::size_t threadCount_;
  const std::uint64_t pageSize_ = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
  const FileDescriptor pages_{open("/proc/self/pagemap", O_RDONLY | O_CLOEXEC)};
  Scratch scratch_{kScratchSize};
  MemoryMap map_;
};

// The failed thread first, then those that SuspendThread has stopped.
std::size_t CollectThreads(const MINIDUMP_EXCEPTION_INFORMATION* exception, const ucontext_t& here,
                           CoreThread* threads) {
  threads[0] = {static_cast<int>(gettid()), 0, &here, ThreadPointer()};
  if (exception != nullptr && exception->ExceptionPointers != nullptr) {
    const CONTEXT& context = *exception->ExceptionPointers->ContextRecord;
    threads[0].signal = context.Signal;
    threads[0].context = static_cast<const ucontext_t*>(context.MachineContext);
  }
  std::size_t count = 1;
  const StoppedThread* const stopped = StoppedThreads();
  for (std::size_t i = 0; i < kMostStoppedThreads; ++i) {
    // Acquire pairs with the release in StayStopped; the id and the thread pointer were written before it, so relaxed
    // loads suffice for them.
    const ucontext_t* const context = stopped[i].context.load(std::memory_order_acquire);
    if (context == nullptr) continue;
    threads[count++] = {stopped[i].id.load(std::memory_order_relaxed), 0, context,
                        stopped[i].threadPointer.load(std::memory_order_relaxed)};
  }
  return count;
}

}  // namespace

}  // namespace kestrun::platform

using namespace kestrun::platform;

BOOL MiniDumpWriteDump(HANDLE, DWORD, HANDLE file, MINIDUMP_TYPE type, const MINIDUMP_EXCEPTION_INFORMATION* exception,
                       const MINIDUMP_USER_STREAM_INFORMATION*, const MINIDUMP_CALLBACK_INFORMATION*) {
  const auto object = LookUp<FileObject>(file);
  if (!object) return FALSE;
  ucontext_t here;
  getcontext(&here);
  // Static, because the signal stack on which this may run is small. Only one filter runs at a time.
  static CoreThread threads[kMostStoppedThreads + 1];
  const std::size_t count = CollectThreads(exception, here, threads);
  CoreWriter writer(object->Descriptor(), (type & MiniDumpWithFullMemory) != 0, threads, count);
  if (writer.Write()) return TRUE;
  SetLastError(Win32ErrorFromErrno(errno));
  return FALSE;
}
