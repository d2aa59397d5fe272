#include "platform/linux/objects/named_object.h"

#include <sys/mman.h>

#include <cerrno>
#include <string_view>
#include <utility>

#include "platform/api/sync_api.h"
#include "platform/host.h"
#include "platform/linux/objects/object_folder.h"
#include "platform/linux/objects/object_sweep.h"
#include "platform/linux/objects/stale_sockets.h"

namespace kestrun::platform {

namespace {

// MAX_PATH, which is Windows' limit for such names.
constexpr std::size_t kLongestName = 260;

}  // namespace

bool FullObjectName(const char* name, std::string* fullName) {
  std::string_view text(name);
  if (text.size() > kLongestName) {
    SetLastError(ERROR_FILENAME_EXCED_RANGE);
    return false;
  }
  *fullName = "l-";
  if (text.starts_with("Global\\")) {
    *fullName = "g-";
    text.remove_prefix(7);
  } else if (text.starts_with("Local\\")) {
    text.remove_prefix(6);
  }
  if (text.empty() || text.find('\\') != text.npos) {
    SetLastError(text.empty() ? ERROR_INVALID_NAME : ERROR_PATH_NOT_FOUND);
    return false;
  }
  *fullName += text;
  return true;
}

void RemoveStaleObjects() {
  if (ObjectTable* const table = ObjectTable::Current()) table->Sweep();
  RemoveStaleSockets(ObjectFolderPath());
}

std::unique_ptr<NamedObject> NamedObject::CreateOrOpen(ObjectKind kind, const char* name, std::uint64_t dataSize,
                                                       const Initialise& initialise, bool* existed) {
  // Sweeps run on the way, in a process that uses the folder just now, so that none has to run for the sweeps alone.
  if (SweepIsDue()) RemoveStaleObjects();
  return Find(name, {kind, {}, dataSize, &initialise}, existed);
}

std::unique_ptr<NamedObject> NamedObject::Open(ObjectKind kind, const char* name) {
  return Find(name, {kind, {}}, nullptr);
}

std::unique_ptr<NamedObject> NamedObject::Find(const char* name, ObjectTable::Request request, bool* existed) {
  std::string fullName;
  if (!FullObjectName(name, &fullName)) return nullptr;
  request.name = fullName;
  ObjectTable* const table = ObjectTable::Current();
  ObjectTable::Found found;
  if (!table || !table->Find(request, &found)) return nullptr;
  if (existed) *existed = found.existed;
  return std::unique_ptr<NamedObject>(new NamedObject(*table, std::move(found)));
}

void NamedObject::Release() {
  const std::lock_guard guard(lock_);
  if (std::exchange(isReleased_, true)) return;
  data_.Reset();
  table_.Release(slot_);
}

bool NamedObject::IsHeldElsewhere() {
  const std::lock_guard guard(lock_);
  return !isReleased_ && table_.IsHeldElsewhere(slot_);
}

void* NamedObject::MapData(std::uint64_t offset, std::size_t length, int protection) {
  const std::lock_guard guard(lock_);
  return mmap(nullptr, length, protection, MAP_SHARED, data_.get(), static_cast<off_t>(offset));
}

}  // namespace kestrun::platform
