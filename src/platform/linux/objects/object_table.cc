// Order of locks: the mutex of Current; the gate; a bucket's mutex; then lock_ or the mutex for growth, which are never
// held together. Locks that other processes share are waited for with a limit, since their holder may be stopped.
#include "platform/linux/objects/object_table.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "platform/api/sync_api.h"
#include "platform/linux/base/never_destroyed.h"
#include "platform/linux/objects/lock_holder.h"
#include "platform/linux/objects/object_folder.h"
#include "platform/linux/objects/object_sweep.h"
#include "platform/linux/objects/robust_mutex.h"

namespace kestrun::platform {

namespace {

// As many slots as most tables come to use.
constexpr unsigned kExpectedObjects = 32;

// Maps the table's file, whose size is `fileSize`, and reserves room for the fixed part. Null with the last error.
ObjectLayout* MapLayout(int file, std::size_t fileSize) {
  const int error = fileSize < kFixedLayoutSize ? ReserveSpace(file, 0, kFixedLayoutSize) : 0;
  if (error != 0) return FailInFolder(error), nullptr;
  // The whole layout is mapped at once, so that the file can grow under the mapping and addresses never change. Pages
  // beyond the file's end are never touched: an access would be a fatal signal.
  void* const memory = mmap(nullptr, sizeof(ObjectLayout), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  if (memory == MAP_FAILED) return FailInFolder(errno), nullptr;
  // A forked child must not inherit the mapping: it keeps the open file and with it the file's locks alive, so this
  // process would seem to live on in its child.
  madvise(memory, sizeof(ObjectLayout), MADV_DONTFORK);
  // One call in place of a page fault for each page that most processes use. Kernels before 5.14 refuse the advice and
  // fault as usual.
  madvise(memory, offsetof(ObjectLayout, states) + kLayoutPage, MADV_POPULATE_WRITE);
  return static_cast<ObjectLayout*>(memory);
}

// Resets everything but kind, name and size in the header of an object that has just been claimed.
void ResetHeader(ObjectHeader& header) {
  header.parameter = 0;
  header.state.word = 0;
  header.state.sleepers = 0;
  header.state.hubs = 0;
  std::memset(&header.mutex, 0, sizeof header.mutex);
  header.abandoned = 0;
}

}  // namespace

class ObjectTable::Visit {
 public:
  explicit Visit(ObjectTable& table) : table_(table) {
    const std::lock_guard guard(table_.lock_);
    table_.AddUse();
  }
  ~Visit() {
    const std::lock_guard guard(table_.lock_);
    table_.DropUse();
  }
  Visit(const Visit&) = delete;
  Visit& operator=(const Visit&) = delete;

 private:
  ObjectTable& table_;
};

// Holds the mutex of a bucket. False if another process has kept it for too long; the last error is then set.
class ObjectTable::BucketLock {
 public:
  BucketLock(ObjectTable& table, unsigned bucket)
      : lock_(table.layout_.buckets[bucket].mutex, table.isStuck_[bucket] ? kShortLockLimitMs : kTableLockLimitMs) {
    // Stored only if it changes, because all threads share the cache line.
    if (table.isStuck_[bucket] != !lock_) table.isStuck_[bucket] = !lock_;
    if (!lock_) FailByHolder(ProcessOfThread(OwnerThread(table.layout_.buckets[bucket].mutex)));
  }
  explicit operator bool() const { return static_cast<bool>(lock_); }

 private:
  const RobustLock lock_;
};

ObjectTable::ObjectTable(FileDescriptor file, ObjectLayout& layout)
    : file_(std::move(file)),
      layout_(layout),
      processes_(file_.get(), layout_),
      slots_(file_.get(), layout_, processes_) {}

ObjectTable::~ObjectTable() {
  munmap(&layout_, sizeof layout_);
}

ObjectTable* ObjectTable::Current() {
  static NeverDestroyed<std::mutex> lock;
  static std::atomic<ObjectTable*> current{nullptr};
  // Acquire pairs with the release below: a thread that sees the table also sees it constructed.
  ObjectTable* table = current.load(std::memory_order_acquire);
  if (table && !table->IsRemoved()) return table;
  const std::lock_guard guard(lock.get());
  // Read again under the lock, since another thread may have entered meanwhile. Acquire as above; the lock alone would
  // do.
  table = current.load(std::memory_order_acquire);
  if (table && !table->IsRemoved()) return table;
  table = Enter();
  if (!table) return nullptr;
  // Earlier tables are never freed, because objects and hubs may still refer to them; this list keeps them reachable
  // for leak checkers.
  static NeverDestroyed<std::vector<ObjectTable*>> entered;
  entered.get().push_back(table);
  // Release: see the first load above.
  current.store(table, std::memory_order_release);
  return table;
}

// One fstat for each call: a user may delete the folder at any time, for instance with all of /dev/shm, and processes
// started later would make another table.
bool ObjectTable::IsRemoved() const {
  struct stat status {};
  return fstat(file_.get(), &status) == 0 && status.st_nlink == 0;
}

ObjectTable* ObjectTable::Enter() {
  for (;;) {
    FileDescriptor file = OpenObjectFile(TableFileName(), O_CREAT);
    if (!file) return nullptr;
    // Declared before the gate, so that it is destroyed after it: unlocking the gate needs the table's file to be open.
    std::unique_ptr<ObjectTable> table;
    // True after a wait for the gate that timed out; the next waits are then short.
    static std::atomic<bool> isStuck{false};
    const TableGate gate(file.get(), isStuck ? kShortLockLimitMs : kTableLockLimitMs);
    isStuck = !gate && errno == ETIMEDOUT;
    if (isStuck) return FailByHolder(HolderOfByte(file.get(), kGateByte)), nullptr;
    struct stat status {};
    if (!gate || fstat(file.get(), &status) != 0) {
      const int error = errno;
      // Some file systems and sandboxes do not have such locks.
      if (!gate) ReportUnusableFolder(std::string("its files cannot be locked: ") + std::strerror(error));
      return FailInFolder(error), nullptr;
    }
    // The file was removed between its opening and the locking of the gate: another one has to be made.
    if (status.st_nlink == 0) continue;
    const auto size = static_cast<std::size_t>(status.st_size);
    ObjectLayout* const layout = MapLayout(file.get(), size);
    if (!layout) return nullptr;
    table.reset(new ObjectTable(std::move(file), *layout));
    return table->Join(size) ? table.release() : nullptr;
  }
}

// Makes this process one of the users of the table, under the gate. False with the last error. A table without a living
// user is emptied first: its state may be anything, since every user of it was killed.
bool ObjectTable::Join(std::size_t fileSize) {
  if (!processes_.AnyIsAlive()) slots_.StartAnew(fileSize);
  const std::size_t inUse = std::min<std::size_t>(slots_.Used(), kExpectedObjects) * sizeof(ObjectSlot);
  madvise(layout_.slots, inUse, MADV_POPULATE_WRITE);
  return ClaimProcessSlot();
}

bool ObjectTable::ClaimProcessSlot() {
  do {
    if (processes_.Claim()) return true;
  } while (SweepTable(layout_, processes_, slots_) > 0);
  ReportUnusableFolder("too many processes use its object table");
  SetLastError(ERROR_TOO_MANY_OPEN_FILES);
  return false;
}

bool ObjectTable::Find(const Request& request, Found* found) {
  const Visit visit(*this);
  const unsigned number = BucketOf(request.name);
  ObjectBucket& bucket = layout_.buckets[number];
  const BucketLock lock(*this, number);
  if (!lock) return false;
  const unsigned slot = slots_.Find(bucket, request.name);
  if (slot != ObjectSlots::kNone) {
    if (slots_.IsHeld(slot)) return OpenObject(request, slot, found);
    // All processes that held the object were killed, so it is gone; the name is free for a new object.
    slots_.Unlink(bucket, slot);
  }
  if (request.initialise) return MakeObject(request, number, found);
  SetLastError(ERROR_FILE_NOT_FOUND);
  return false;
}

void ObjectTable::Release(unsigned slot) {
  ObjectSlot& object = slots_[slot];
  ObjectBucket& bucket = layout_.buckets[object.bucket];
  const BucketLock lock(*this, object.bucket);
  const std::lock_guard guard(lock_);
  if (--own_[slot].holds != 0) return;
  object.held.Remove(processes_.own());
  // Without the lock the slot stays in its chain, as if this process had been killed. The object can't be opened any
  // more, and the next process that asks for its name unlinks it.
  if (lock && object.held.IsEmpty()) slots_.Unlink(bucket, slot);
}

bool ObjectTable::IsHeldElsewhere(unsigned slot) {
  {
    const std::lock_guard guard(lock_);
    if (own_[slot].holds > 1) return true;
  }
  return slots_[slot].held.Any(
      [this](unsigned process) { return process != processes_.own() && processes_.IsAlive(process); });
}

int ObjectTable::Sweep() {
  const Visit visit(*this);
  const TableGate gate(file_.get(), kShortLockLimitMs);
  return gate ? SweepTable(layout_, processes_, slots_) : 0;
}

bool ObjectTable::OpenObject(const Request& request, unsigned slot, Found* found) {
  const ObjectHeader& header = slots_[slot].header;
  if (header.kind != static_cast<std::uint32_t>(request.kind)) {
    SetLastError(ERROR_INVALID_HANDLE);
    return false;
  }
  FileDescriptor data;
  if (header.dataSize != 0 && !(data = OpenObjectFile(slots_.DataFile(slot), 0))) return false;
  Hold(slot);
  *found = {slot, true, Pin(slot), std::move(data)};
  return true;
}

bool ObjectTable::MakeObject(const Request& request, unsigned bucket, Found* found) {
  unsigned slot = 0;
  if (!slots_.Claim(&slot)) return false;
  ObjectSlot& object = slots_[slot];
  ObjectHeader& header = object.header;
  ResetHeader(header);
  header.kind = static_cast<std::uint32_t>(request.kind);
  header.dataSize = request.dataSize;
  header.nameLength = static_cast<std::uint32_t>(request.name.size());
  std::memcpy(header.name, request.name.data(), request.name.size());
  FileDescriptor data;
  if (request.dataSize != 0 && !MakeData(slot, request.dataSize, &data)) {
    slots_.Free(slot);
    return false;
  }
  // The object becomes visible only with Link below.
  (*request.initialise)(header);
  // The slot is held before it is live: a process that is killed between the two steps leaves a mark, by which the
  // sweep finds the slot.
  object.bucket = bucket;
  Hold(slot);
  slots_.Link(bucket, slot);
  *found = {slot, false, Pin(slot), std::move(data)};
  return true;
}

bool ObjectTable::MakeData(unsigned slot, std::uint64_t size, FileDescriptor* data) {
  *data = OpenObjectFile(slots_.DataFile(slot), O_CREAT | O_EXCL);
  if (!*data) return false;
  const int error = ReserveSpace(data->get(), 0, size);
  return error == 0 || FailInFolder(error);
}

// With lock_ held, as DropUse.
void ObjectTable::AddUse() {
  if (uses_++ == 0) layout_.hasMarks[processes_.own()].store(1);
}

void ObjectTable::DropUse() {
  if (--uses_ == 0) layout_.hasMarks[processes_.own()].store(0);
}

// Called under the bucket's mutex, for a slot that another process holds or this one has claimed. The pin comes before
// the hold and goes after it, since a held slot must never be reclaimed.
void ObjectTable::Hold(unsigned slot) {
  const std::lock_guard guard(lock_);
  AddUse();
  Counts& own = own_[slot];
  if (own.pins++ == 0) slots_[slot].pinned.Add(processes_.own());
  if (own.holds++ == 0) slots_[slot].held.Add(processes_.own());
}

std::shared_ptr<ObjectHeader> ObjectTable::Pin(unsigned slot) {
  return {&slots_[slot].header, [this, slot](ObjectHeader*) { Unpin(slot); }};
}

void ObjectTable::Unpin(unsigned slot) {
  const std::lock_guard guard(lock_);
  const auto own = own_.find(slot);
  if (--own->second.pins == 0) {
    own_.erase(own);
    // The generation is read while the pin still keeps the slot: afterwards the slot may serve another object, which
    // must not be reclaimed.
    const std::uint32_t generation = slots_.State(slot).generation;
    slots_[slot].pinned.Remove(processes_.own());
    if (slots_[slot].pinned.IsEmpty()) slots_.Reclaim(slot, generation);
  }
  DropUse();
}

}  // namespace kestrun::platform
