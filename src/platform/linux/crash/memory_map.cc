#include "platform/linux/crash/memory_map.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "platform/linux/base/file_descriptor.h"

namespace kestrun::platform {

namespace {

constexpr std::size_t kMostMapText = 16 << 20;

// Reads a hexadecimal number and moves the pointer behind it. The kernel writes lower case only.
std::uint64_t TakeHex(const char*& text) {
  std::uint64_t value = 0;
  for (;; ++text) {
    const char c = *text;
    if (c >= '0' && c <= '9') {
      value = value * 16 + static_cast<std::uint64_t>(c - '0');
    } else if (c >= 'a' && c <= 'f') {
      value = value * 16 + static_cast<std::uint64_t>(c - 'a' + 10);
    } else {
      return value;
    }
  }
}

void SkipWord(const char*& text) {
  while (*text != ' ' && *text != '\0') ++text;
  while (*text == ' ') ++text;
}

// Parses a line of /proc/self/maps: "start-end rwxp offset device inode      name".
MappedRange ParseLine(const char* line) {
  MappedRange range{};
  range.start = TakeHex(line);
  ++line;
  range.end = TakeHex(line);
  ++line;
  range.isReadable = line[0] == 'r';
  range.isWritable = line[1] == 'w';
  range.isExecutable = line[2] == 'x';
  range.isShared = line[3] == 's';
  SkipWord(line);
  range.offset = TakeHex(line);
  SkipWord(line);
  SkipWord(line);
  SkipWord(line);
  range.name = line;
  return range;
}

}  // namespace

// Fresh pages from the kernel. MAP_NORESERVE: a large block costs only what is used of it.
Scratch::Scratch(std::size_t size)
    : size_(size),
      memory_(static_cast<char*>(
          mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0))) {
  if (memory_ == MAP_FAILED) size_ = 0;
}

Scratch::~Scratch() {
  if (size_ != 0) munmap(memory_, size_);
}

void* Scratch::Take(std::size_t size) {
  const std::size_t rounded = (size + 15) & ~static_cast<std::size_t>(15);
  if (rounded < size || size_ - used_ < rounded) return nullptr;
  void* const taken = memory_ + used_;
  used_ += rounded;
  return taken;
}

bool Scratch::Holds(std::uint64_t address) const {
  const auto start = reinterpret_cast<std::uint64_t>(memory_);
  return address >= start && address < start + size_;
}

Bytes ReadProcFile(const char* name, std::size_t most, Scratch& scratch) {
  const FileDescriptor file(open(name, O_RDONLY | O_CLOEXEC));
  char* const data = scratch.TakeArray<char>(most + 1);
  if (!file || data == nullptr) return {};
  std::size_t size = 0;
  while (size < most) {
    const ssize_t got = read(file.get(), data + size, most - size);
    if (got <= 0) break;
    size += static_cast<std::size_t>(got);
  }
  data[size] = '\0';
  return {data, size};
}

MemoryMap ReadMemoryMap(Scratch& scratch) {
  const Bytes text = ReadProcFile("/proc/self/maps", kMostMapText, scratch);
  const auto lines = static_cast<std::size_t>(std::count(text.data, text.data + text.size, '\n'));
  MappedRange* const ranges = scratch.TakeArray<MappedRange>(lines);
  if (ranges == nullptr) return {};
  char* line = const_cast<char*>(text.data);
  for (std::size_t i = 0; i < lines; ++i) {
    char* const end =
        static_cast<char*>(std::memchr(line, '\n', static_cast<std::size_t>(text.data + text.size - line)));
    *end = '\0';
    ranges[i] = ParseLine(line);
    line = end + 1;
  }
  return {ranges, lines};
}

}  // namespace kestrun::platform
