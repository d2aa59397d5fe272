// Version information, which Windows programs keep in a resource, out of an ELF note. The note is named "kestrun", of
// type 1, and holds the four parts of the version as 16-bit numbers, least significant byte first; kestrun_version_note
// in cmake/version.cmake makes it.
#include <elf.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "platform/api/process_api.h"
#include "platform/linux/base/file_descriptor.h"
#include "platform/linux/files/file_names.h"

namespace kestrun::platform {
namespace {

constexpr char kNoteName[] = "kestrun";
constexpr std::uint32_t kNoteType = 1;
constexpr std::size_t kMaxNotes = 64 * 1024;

// A file whose first block is read at once, because headers and notes mostly lie in it and need no further system call.
class ProgramReader {
 public:
  explicit ProgramReader(const std::string& name) : file_(open(name.c_str(), O_RDONLY | O_CLOEXEC)) {
    const ssize_t count = file_ ? pread(file_.get(), block_, sizeof block_, 0) : 0;
    if (count > 0) blockSize_ = static_cast<std::size_t>(count);
  }

  bool Read(std::uint64_t offset, void* buffer, std::size_t size) const {
    if (offset <= blockSize_ && size <= blockSize_ - offset) {
      std::memcpy(buffer, block_ + offset, size);
      return true;
    }
    return file_ && pread(file_.get(), buffer, size, static_cast<off_t>(offset)) == static_cast<ssize_t>(size);
  }

 private:
  const FileDescriptor file_;
  char block_[4096];
  std::size_t blockSize_ = 0;
};

template <class T>
bool ReadAt(const ProgramReader& file, std::uint64_t offset, T& value) {
  return file.Read(offset, &value, sizeof value);
}

std::size_t Aligned(std::size_t size) {
  return (size + 3) & ~std::size_t{3};
}

DWORD PairAt(const char* bytes) {
  const auto byte = [&](int i) { return static_cast<DWORD>(static_cast<unsigned char>(bytes[i])); };
  return (byte(0) | byte(1) << 8) << 16 | byte(2) | byte(3) << 8;
}

// Walks the notes of one segment. The lengths in the file are not trusted: each is checked against the segment's size.
std::optional<VS_FIXEDFILEINFO> FindNote(const std::vector<char>& notes) {
  for (std::size_t at = 0; notes.size() - at >= sizeof(Elf64_Nhdr);) {
    Elf64_Nhdr header;
    std::memcpy(&header, &notes[at], sizeof header);
    const std::size_t name = at + sizeof header;
    const std::size_t data = name + Aligned(header.n_namesz);
    const std::size_t next = data + Aligned(header.n_descsz);
    if (next > notes.size()) return std::nullopt;
    if (header.n_type == kNoteType && header.n_namesz == sizeof kNoteName && header.n_descsz == 8 &&
        std::memcmp(&notes[name], kNoteName, sizeof kNoteName) == 0) {
      VS_FIXEDFILEINFO info = {};
      info.dwSignature = 0xFEEF04BD;
      info.dwStrucVersion = 0x00010000;
      info.dwFileVersionMS = info.dwProductVersionMS = PairAt(&notes[data]);
      info.dwFileVersionLS = info.dwProductVersionLS = PairAt(&notes[data + 4]);
      return info;
    }
    at = next;
  }
  return std::nullopt;
}

template <class Header, class Segment>
std::optional<VS_FIXEDFILEINFO> ReadSegments(const ProgramReader& file) {
  Header header;
  if (!ReadAt(file, 0, header) || header.e_phentsize != sizeof(Segment)) return std::nullopt;
  for (unsigned i = 0; i < header.e_phnum; ++i) {
    Segment segment;
    if (!ReadAt(file, header.e_phoff + i * sizeof segment, segment)) return std::nullopt;
    if (segment.p_type != PT_NOTE || segment.p_filesz > kMaxNotes) continue;
    std::vector<char> notes(segment.p_filesz);
    if (!file.Read(segment.p_offset, notes.data(), notes.size())) return std::nullopt;
    if (const auto info = FindNote(notes)) return info;
  }
  return std::nullopt;
}

std::optional<VS_FIXEDFILEINFO> ReadVersion(const std::string& name) {
  const ProgramReader file(NameOnDisk(SystemName(name)));
  unsigned char identity[EI_NIDENT] = {};
  if (!ReadAt(file, 0, identity) || std::memcmp(identity, ELFMAG, SELFMAG) != 0) return std::nullopt;
  // Numbers are read as they lie in the file, so a program of the other byte order has no version here.
  const int order = std::endian::native == std::endian::little ? ELFDATA2LSB : ELFDATA2MSB;
  if (identity[EI_DATA] != order) return std::nullopt;
  if (identity[EI_CLASS] == ELFCLASS64) return ReadSegments<Elf64_Ehdr, Elf64_Phdr>(file);
  return ReadSegments<Elf32_Ehdr, Elf32_Phdr>(file);
}

// The contract has two calls for one answer: the size first, then the data. The answer to the first is kept for the
// second, so that the file is read once.
struct LastAnswer {
  std::string name;
  std::optional<VS_FIXEDFILEINFO> info;
};
thread_local LastAnswer lastAnswer;

}  // namespace
}  // namespace kestrun::platform

using namespace kestrun::platform;

DWORD GetFileVersionInfoSizeA(LPCSTR fileName, LPDWORD handle) {
  if (handle != nullptr) *handle = 0;
  lastAnswer = {fileName, ReadVersion(fileName)};
  if (lastAnswer.info) return sizeof(VS_FIXEDFILEINFO);
  SetLastError(ERROR_RESOURCE_TYPE_NOT_FOUND);
  return 0;
}

BOOL GetFileVersionInfoA(LPCSTR fileName, DWORD, DWORD size, LPVOID data) {
  const std::optional<VS_FIXEDFILEINFO> info = lastAnswer.name == fileName ? lastAnswer.info : ReadVersion(fileName);
  lastAnswer = {};
  if (!info || size < sizeof *info) {
    SetLastError(info ? ERROR_INSUFFICIENT_BUFFER : ERROR_RESOURCE_TYPE_NOT_FOUND);
    return FALSE;
  }
  std::memcpy(data, &*info, sizeof *info);
  return TRUE;
}

BOOL VerQueryValueA(LPCVOID block, LPCSTR subBlock, LPVOID* buffer, UINT* length) {
  if (std::strcmp(subBlock, "\\") != 0) {
    SetLastError(ERROR_RESOURCE_TYPE_NOT_FOUND);
    return FALSE;
  }
  *buffer = const_cast<void*>(block);
  *length = sizeof(VS_FIXEDFILEINFO);
  return TRUE;
}
