// The memory map of this process as the kernel tells it, for code that must not allocate.
//
// For the crash path, on one thread. Nothing here uses the heap, takes a lock or throws; failure is an empty result.
#ifndef KESTRUN_PLATFORM_LINUX_CRASH_MEMORY_MAP_H_
#define KESTRUN_PLATFORM_LINUX_CRASH_MEMORY_MAP_H_

#include <cstddef>
#include <cstdint>

namespace kestrun::platform {

// A block of fresh pages that is handed out from front to end, and freed as a whole.
class Scratch {
 public:
  explicit Scratch(std::size_t size);
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;
  ~Scratch();

  // Zeroed, aligned to 16; null when there is no room.
  void* Take(std::size_t size);
  template <class T>
  T* TakeArray(std::size_t count) {
    return static_cast<T*>(Take(count * sizeof(T)));
  }

  bool Holds(std::uint64_t address) const;

 private:
  std::size_t size_;
  char* memory_;
  std::size_t used_ = 0;
};

struct MappedRange {
  std::uint64_t start;
  std::uint64_t end;
  std::uint64_t offset;
  bool isReadable;
  bool isWritable;
  bool isExecutable;
  bool isShared;
  const char* name;  // "" for memory without a file; "[stack]" and the like for the kernel's own names

  std::uint64_t Size() const { return end - start; }
  bool HasFile() const { return name[0] == '/'; }
};

struct MemoryMap {
  const MappedRange* ranges = nullptr;
  std::size_t count = 0;
};

// Empty on failure.
MemoryMap ReadMemoryMap(Scratch& scratch);

// The whole of a small file of /proc. `size` is 0 on failure.
struct Bytes {
  const char* data = "";
  std::size_t size = 0;
};
Bytes ReadProcFile(const char* name, std::size_t most, Scratch& scratch);

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_CRASH_MEMORY_MAP_H_
