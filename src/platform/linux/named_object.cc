#include "platform/linux/named_object.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <string_view>
#include <utility>

#include "platform/linux/never_destroyed.h"
#include "platform/linux/object_folder.h"
#include "platform/linux/sync_api.h"

namespace kestrun::platform {

namespace {

// Changes with the layout, so that programs of two versions never share an object.
constexpr std::uint32_t kMagic = 0x4B4F0001u + static_cast<std::uint32_t>(sizeof(ObjectHeader)) * 16;

constexpr off_t kGateByte = 0;
constexpr off_t kHeldByte = 1;
constexpr std::size_t kLongestName = 260;
constexpr std::size_t kMaxEscapedName = 200;

bool Lock(int fd, int command, short type, off_t start, off_t length) {
  struct flock lock {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_start = start;
  lock.l_len = length;
  int result;
  do {
    result = fcntl(fd, command, &lock);
  } while (result != 0 && errno == EINTR);
  return result == 0;
}

bool TakeHeld(int fd) {
  return Lock(fd, F_OFD_SETLK, F_RDLCK, kHeldByte, 1);
}
void DropGate(int fd) {
  Lock(fd, F_OFD_SETLK, F_UNLCK, kGateByte, 1);
}

// The headers that this process has mapped, by file. All handles on an object see it at one address, which the
// sanitizer of threads needs in order to recognise it, and which keeps a mutex where its owner's list points.
class HeaderMappings {
 public:
  static HeaderMappings& Get() {
    static NeverDestroyed<HeaderMappings> mappings;
    return mappings.get();
  }

  // Null with errno.
  std::shared_ptr<ObjectHeader> Map(int fd, const struct stat& status) {
    const Key key(status.st_dev, status.st_ino);
    std::lock_guard<std::mutex> guard(lock_);
    if (std::shared_ptr<ObjectHeader> known = headers_[key].lock()) return known;
    void* address = mmap(nullptr, kObjectHeaderSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (address == MAP_FAILED) return nullptr;
    // A mapping keeps the file's locks alive like a descriptor does, so a forked child must not get it.
    madvise(address, kObjectHeaderSize, MADV_DONTFORK);
    std::shared_ptr<ObjectHeader> header(static_cast<ObjectHeader*>(address),
                                         [this, key](ObjectHeader* gone) { Unmap(key, gone); });
    headers_[key] = header;
    return header;
  }

 private:
  using Key = std::pair<dev_t, ino_t>;

  void Unmap(const Key& key, ObjectHeader* header) {
    std::lock_guard<std::mutex> guard(lock_);
    // Another thread may have mapped the file anew since the last reference went.
    const auto found = headers_.find(key);
    if (found != headers_.end() && found->second.expired()) headers_.erase(found);
    munmap(header, kObjectHeaderSize);
  }

  std::mutex lock_;
  std::map<Key, std::weak_ptr<ObjectHeader>> headers_;
};

bool IsPlain(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-' || c == '.';
}

std::string Hex(std::uint64_t value, int digits) {
  std::string text(static_cast<std::size_t>(digits), '0');
  for (int i = digits - 1; i >= 0; --i, value >>= 4) text[static_cast<std::size_t>(i)] = "0123456789abcdef"[value & 15];
  return text;
}

std::uint64_t HashOf(std::string_view text) {
  std::uint64_t hash = 14695981039346656037u;
  for (const char c : text) hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211u;
  return hash;
}

}  // namespace

bool TakeGate(int fd, bool wait) {
  return Lock(fd, wait ? F_OFD_SETLKW : F_OFD_SETLK, F_WRLCK, kGateByte, 1);
}

void DropAllLocks(int fd) {
  Lock(fd, F_OFD_SETLK, F_UNLCK, 0, 0);
}

bool IsHeldByOthers(int fd) {
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  lock.l_start = kHeldByte;
  lock.l_len = 1;
  // A question that can't be answered counts as yes: nothing is then removed or taken over.
  return fcntl(fd, F_OFD_GETLK, &lock) != 0 || lock.l_type != F_UNLCK;
}

bool ObjectFileName(const char* name, std::string* leaf, std::string* fullName) {
  std::string_view text(name);
  if (text.size() > kLongestName) {
    SetLastError(ERROR_FILENAME_EXCED_RANGE);
    return false;
  }
  *leaf = "l-";
  if (text.starts_with("Global\\")) {
    *leaf = "g-";
    text.remove_prefix(7);
  } else if (text.starts_with("Local\\")) {
    text.remove_prefix(6);
  }
  if (text.empty() || text.find('\\') != text.npos) {
    SetLastError(text.empty() ? ERROR_INVALID_NAME : ERROR_PATH_NOT_FOUND);
    return false;
  }
  fullName->assign(*leaf).append(text);
  std::string escaped;
  for (const char c : text) {
    if (IsPlain(c)) {
      escaped += c;
    } else {
      escaped += '%' + Hex(static_cast<unsigned char>(c), 2);
    }
  }
  // "%%" is no escape, so a shortened name is never another one's.
  if (escaped.size() > kMaxEscapedName) escaped = "%%" + Hex(HashOf(text), 16);
  *leaf += escaped;
  return true;
}

struct NamedObject::Request {
  ObjectKind kind;
  const char* name;
  std::uint64_t dataSize;
  const Initialise* initialise;  // null: only an object that exists
  std::string leaf;
  std::string fullName;
};

std::unique_ptr<NamedObject> NamedObject::CreateOrOpen(ObjectKind kind, const char* name, std::uint64_t dataSize,
                                                       const Initialise& initialise, bool* existed) {
  SweepNowAndThen();
  return Find({kind, name, dataSize, &initialise, {}, {}}, existed);
}

std::unique_ptr<NamedObject> NamedObject::Open(ObjectKind kind, const char* name) {
  return Find({kind, name, 0, nullptr, {}, {}}, nullptr);
}

std::unique_ptr<NamedObject> NamedObject::Find(const Request& asked, bool* existed) {
  Request request = asked;
  if (!ObjectFileName(request.name, &request.leaf, &request.fullName)) return nullptr;
  std::unique_ptr<NamedObject> result;
  Step step;
  do {
    step = Try(request, &result);
  } while (step == Step::kAgain);
  if (existed) *existed = step == Step::kOpened;
  return result;
}

NamedObject::Step NamedObject::Try(const Request& request, std::unique_ptr<NamedObject>* result) {
  FileDescriptor file = OpenObjectFile(request.leaf, request.initialise ? O_CREAT : 0);
  if (!file) return Step::kFailed;
  struct stat status {};
  if (!TakeGate(file.get(), true) || fstat(file.get(), &status) != 0) {
    SetLastError(Win32ErrorFromErrno(errno));
    return Step::kFailed;
  }
  // Its last holder went while we waited at the gate; the name may stand for another file by now.
  if (status.st_nlink == 0) return Step::kAgain;
  if (IsHeldByOthers(file.get())) return Join(request, std::move(file), status, result);
  if (status.st_size == 0 && request.initialise) return Make(request, std::move(file), status, result);
  // Left by a process that died. Closing the file gives up the gate.
  UnlinkObjectFile(request.leaf, file.get());
  DropAllLocks(file.get());
  return Step::kAgain;
}

NamedObject::Step NamedObject::Join(const Request& request, FileDescriptor file, const struct stat& status,
                                    std::unique_ptr<NamedObject>* result) {
  std::shared_ptr<ObjectHeader> header;
  const bool hasHeader = status.st_size >= static_cast<off_t>(kObjectHeaderSize);
  if (hasHeader) header = HeaderMappings::Get().Map(file.get(), status);
  if (hasHeader && !header) {
    SetLastError(Win32ErrorFromErrno(errno));
  } else if (!header || !Describes(*header, request, status)) {
    SetLastError(ERROR_INVALID_HANDLE);
  } else if (!TakeHeld(file.get())) {
    SetLastError(Win32ErrorFromErrno(errno));
  } else {
    DropGate(file.get());
    result->reset(new NamedObject(request.leaf, std::move(file), std::move(header)));
    return Step::kOpened;
  }
  DropAllLocks(file.get());
  return Step::kFailed;
}

// Whether a header is that of the object asked for, and the file as long as it says.
bool NamedObject::Describes(const ObjectHeader& header, const Request& request, const struct stat& status) {
  return header.magic.load(std::memory_order_acquire) == kMagic &&
         header.kind == static_cast<std::uint32_t>(request.kind) && header.nameLength <= sizeof header.name &&
         std::string_view(header.name, header.nameLength) == request.fullName &&
         header.dataSize <= static_cast<std::uint64_t>(status.st_size) - kObjectHeaderSize;
}

NamedObject::Step NamedObject::Make(const Request& request, FileDescriptor file, const struct stat& status,
                                    std::unique_ptr<NamedObject>* result) {
  int error = ReserveSpace(file.get(), kObjectHeaderSize + request.dataSize);
  std::shared_ptr<ObjectHeader> header;
  if (error == 0) {
    header = HeaderMappings::Get().Map(file.get(), status);
    if (!header) error = errno;
  }
  if (header) {
    header->kind = static_cast<std::uint32_t>(request.kind);
    header->dataSize = request.dataSize;
    header->nameLength = static_cast<std::uint32_t>(request.fullName.size());
    std::memcpy(header->name, request.fullName.data(), request.fullName.size());
    (*request.initialise)(*header);
    // The gate orders this against openers of other processes; two threads of one process share the mapping.
    header->magic.store(kMagic, std::memory_order_release);
    if (!TakeHeld(file.get())) error = errno;
  }
  if (error != 0) {
    UnlinkObjectFile(request.leaf, file.get());
    DropAllLocks(file.get());
    SetLastError(Win32ErrorFromErrno(error));
    return Step::kFailed;
  }
  DropGate(file.get());
  result->reset(new NamedObject(request.leaf, std::move(file), std::move(header)));
  return Step::kCreated;
}

void NamedObject::Release() {
  std::lock_guard<std::mutex> guard(lock_);
  if (!file_) return;
  TakeGate(file_.get(), true);
  if (!IsHeldByOthers(file_.get())) UnlinkObjectFile(leaf_, file_.get());
  // Said explicitly, because closing does not do it while a mapping or a child on its way to exec still has the file.
  DropAllLocks(file_.get());
  file_.Reset();
}

bool NamedObject::IsHeldElsewhere() {
  std::lock_guard<std::mutex> guard(lock_);
  return file_ && IsHeldByOthers(file_.get());
}

void* NamedObject::MapData(std::uint64_t offset, std::size_t length, int protection) {
  std::lock_guard<std::mutex> guard(lock_);
  return mmap(nullptr, length, protection, MAP_SHARED, file_.get(), static_cast<off_t>(kObjectHeaderSize + offset));
}

void StoredWaitable::LastHandleClosed() {
  if (name_) name_->Release();
}

std::uint32_t StoredWaitable::HandleCount() {
  const std::uint32_t own = OwnHandles();
  return own == 1 && name_ && name_->IsHeldElsewhere() ? 2 : own;
}

}  // namespace kestrun::platform
