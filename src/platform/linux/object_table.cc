#include "platform/linux/object_table.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <vector>

#include "platform/linux/never_destroyed.h"
#include "platform/linux/object_folder.h"
#include "platform/linux/sync_api.h"

namespace kestrun::platform {

namespace {

constexpr unsigned kMaxObjects = 8192;
constexpr unsigned kBuckets = 128;
constexpr unsigned kHubs = 64;
constexpr unsigned kSlotsAtOnce = 32;
constexpr std::size_t kPage = 4096;

constexpr off_t kGateByte = 0;
constexpr off_t kHubBytes = 4096;
constexpr off_t kPlaceBytes = 8192;

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

bool TryLock(int fd, off_t byte) {
  return Lock(fd, F_OFD_SETLK, F_WRLCK, byte, 1);
}

bool IsLockedElsewhere(int fd, off_t start, off_t length) {
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  lock.l_start = start;
  lock.l_len = length;
  // A question that can't be answered counts as yes: nothing is then removed or taken over.
  return fcntl(fd, F_OFD_GETLK, &lock) != 0 || lock.l_type != F_UNLCK;
}

class Gate {
 public:
  explicit Gate(int fd) : fd_(fd), isHeld_(Lock(fd, F_OFD_SETLKW, F_WRLCK, kGateByte, 1)) {}
  ~Gate() {
    if (isHeld_) Lock(fd_, F_OFD_SETLK, F_UNLCK, kGateByte, 1);
  }
  Gate(const Gate&) = delete;
  Gate& operator=(const Gate&) = delete;
  explicit operator bool() const { return isHeld_; }

 private:
  const int fd_;
  const bool isHeld_;
};

void InitialiseRobust(pthread_mutex_t& mutex) {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
  pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
  pthread_mutex_init(&mutex, &attributes);
  pthread_mutexattr_destroy(&attributes);
}

class RobustLock {
 public:
  explicit RobustLock(pthread_mutex_t& mutex) : mutex_(mutex) {
    if (pthread_mutex_lock(&mutex_) == EOWNERDEAD) pthread_mutex_consistent(&mutex_);
  }
  ~RobustLock() { pthread_mutex_unlock(&mutex_); }
  RobustLock(const RobustLock&) = delete;
  RobustLock& operator=(const RobustLock&) = delete;

 private:
  pthread_mutex_t& mutex_;
};

std::string Hex(std::uint64_t value) {
  std::string text;
  do {
    text.insert(text.begin(), "0123456789abcdef"[value & 15]);
  } while ((value >>= 4) != 0);
  return text;
}

bool FailWith(int error) {
  if (error == ENOSPC || error == EFBIG) ReportUnusableFolder(std::strerror(error));
  SetLastError(Win32ErrorFromErrno(error));
  return false;
}

}  // namespace

// How often the slot has been in use, who has claimed it, and the phase.
struct ObjectTable::SlotState {
  std::uint32_t generation;
  std::uint16_t owner;  // of a claimed one
  Phase phase;

  static SlotState Of(std::uint64_t word) {
    return {static_cast<std::uint32_t>(word >> 32), static_cast<std::uint16_t>(word >> 8),
            static_cast<Phase>(word & 0xFF)};
  }
  std::uint64_t Word() const {
    return std::uint64_t{generation} << 32 | std::uint64_t{owner} << 8 | static_cast<std::uint64_t>(phase);
  }
  SlotState In(Phase next) const { return {generation, 0, next}; }
  SlotState ClaimedBy(unsigned place) const { return {generation, static_cast<std::uint16_t>(place), Phase::kClaimed}; }
};

struct ObjectTable::Slot {
  ObjectHeader header;
  std::atomic<std::uint32_t> next;  // in the chain: 1 + the slot's number, or 0; guarded by the bucket
  std::uint32_t bucket;
  alignas(64) ProcessSet held;
  ProcessSet pinned;
};

struct alignas(64) ObjectTable::Bucket {
  pthread_mutex_t mutex;
  std::atomic<std::uint32_t> first;  // as `next`; guarded by mutex
};

struct ObjectTable::Shared {
  std::uint64_t serial;  // of this start; in the names of its data files
  pthread_mutex_t growth;
  std::atomic<std::uint32_t> used;       // slots that have ever been claimed; guarded by growth
  std::atomic<std::uint32_t> reserved;   // slots that the file has room for; guarded by growth
  std::atomic<std::uint32_t> firstFree;  // perhaps; where a search begins
  alignas(kPage) HubWord hubs[kHubs];
  Bucket buckets[kBuckets];
  alignas(kPage) std::atomic<std::uint8_t> littered[kMaxProcesses];
  std::atomic<std::uint64_t> states[kMaxObjects];  // SlotState
  alignas(kPage) Slot slots[kMaxObjects];
};

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

ObjectTable* ObjectTable::Current() {
  static NeverDestroyed<std::mutex> lock;
  static std::atomic<ObjectTable*> current{nullptr};
  ObjectTable* table = current.load(std::memory_order_acquire);
  if (table && !table->IsRemoved()) return table;
  const std::lock_guard guard(lock.get());
  table = current.load(std::memory_order_acquire);
  if (table && !table->IsRemoved()) return table;
  table = Enter();
  if (!table) return nullptr;
  static NeverDestroyed<std::vector<ObjectTable*>> entered;
  entered.get().push_back(table);
  current.store(table, std::memory_order_release);
  return table;
}

bool ObjectTable::IsRemoved() const {
  struct stat status {};
  return fstat(file_.get(), &status) == 0 && status.st_nlink == 0;
}

ObjectTable* ObjectTable::Enter() {
  // Programs whose layouts differ never share a table.
  static const std::string leaf = ".table-" + Hex(sizeof(Shared)) + "-1";
  constexpr std::size_t kFixedPart = offsetof(Shared, slots);
  for (;;) {
    FileDescriptor file = OpenObjectFile(leaf, O_CREAT);
    if (!file) return nullptr;
    std::unique_ptr<ObjectTable> table;
    const Gate gate(file.get());
    struct stat status {};
    if (!gate || fstat(file.get(), &status) != 0) {
      const int error = errno;
      // Not every file system has these locks, nor every sandbox.
      if (!gate) ReportUnusableFolder(std::string("its files cannot be locked: ") + std::strerror(error));
      return FailWith(error), nullptr;
    }
    if (status.st_nlink == 0) continue;
    const auto size = static_cast<std::size_t>(status.st_size);
    const int error = size < kFixedPart ? ReserveSpace(file.get(), 0, kFixedPart) : 0;
    if (error != 0) return FailWith(error), nullptr;
    // All of it at once, so that it can grow where it is; what the file has no room for yet is never touched.
    void* const memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
    if (memory == MAP_FAILED) return FailWith(errno), nullptr;
    // A mapping keeps the file's locks alive like a descriptor does, so a forked child must not get it.
    madvise(memory, sizeof(Shared), MADV_DONTFORK);
    // What most processes use, in one call in place of a fault a page; a kernel that can't is as good.
    madvise(memory, offsetof(Shared, states) + kPage, MADV_POPULATE_WRITE);
    table.reset(new ObjectTable(std::move(file), static_cast<Shared*>(memory)));
    if (!IsLockedElsewhere(table->file_.get(), kPlaceBytes, kMaxProcesses)) {
      const std::size_t slots = size > kFixedPart ? (size - kFixedPart) / sizeof(Slot) : 0;
      table->shared_->reserved = static_cast<std::uint32_t>(std::min<std::size_t>(slots, kMaxObjects));
      table->StartAnew();
    }
    const std::size_t inUse = std::min<std::size_t>(table->shared_->used, kSlotsAtOnce) * sizeof(Slot);
    madvise(table->shared_->slots, inUse, MADV_POPULATE_WRITE);
    if (table->ClaimPlace()) return table.release();
    munmap(memory, sizeof(Shared));
    return nullptr;
  }
}

// Nobody else lives here, and nobody comes while the gate is held.
void ObjectTable::StartAnew() {
  Shared& shared = *shared_;
  shared.used = std::min(shared.used.load(), shared.reserved.load());
  for (unsigned slot = 0; slot < shared.used; ++slot) {
    if (SlotState::Of(shared.states[slot]).phase != Phase::kFree) Free(slot);
    shared.states[slot] = 0;
  }
  for (HubWord& hub : shared.hubs) hub.sleepers = 0;
  for (Bucket& bucket : shared.buckets) {
    InitialiseRobust(bucket.mutex);
    bucket.first = 0;
  }
  for (auto& flag : shared.littered) flag.store(0, std::memory_order_relaxed);
  InitialiseRobust(shared.growth);
  shared.firstFree = 0;
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  shared.serial = static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(now.tv_nsec);
}

// Under the gate.
bool ObjectTable::ClaimPlace() {
  const auto start = static_cast<unsigned>(getpid());
  do {
    for (unsigned i = 0; i < kMaxProcesses; ++i) {
      place_ = (start + i) % kMaxProcesses;
      if (shared_->littered[place_].load() == 0 && TryLock(file_.get(), kPlaceBytes + static_cast<off_t>(place_))) {
        return true;
      }
    }
    place_ = kMaxProcesses;
  } while (SweepUnderGate() > 0);
  SetLastError(ERROR_TOO_MANY_OPEN_FILES);
  return false;
}

bool ObjectTable::Find(const Request& request, Found* found) {
  const Visit visit(*this);
  const auto number = static_cast<unsigned>(BucketOf(request.name));
  Bucket& bucket = shared_->buckets[number];
  const RobustLock lock(bucket.mutex);
  const unsigned slot = Lookup(bucket, request.name);
  if (slot != kMaxObjects) {
    if (IsHeld(slot)) return Join(request, slot, found);
    // Left by a process that died.
    Unlink(bucket, slot);
  }
  if (request.initialise) return Make(request, number, found);
  SetLastError(ERROR_FILE_NOT_FOUND);
  return false;
}

void ObjectTable::Release(unsigned slot) {
  Slot& object = shared_->slots[slot];
  Bucket& bucket = shared_->buckets[object.bucket];
  const RobustLock lock(bucket.mutex);
  const std::lock_guard guard(lock_);
  if (--own_[slot].holds != 0) return;
  object.held.Remove(place_);
  if (object.held.IsEmpty()) Unlink(bucket, slot);
}

bool ObjectTable::IsHeldElsewhere(unsigned slot) {
  {
    const std::lock_guard guard(lock_);
    if (own_[slot].holds > 1) return true;
  }
  return shared_->slots[slot].held.Any([this](unsigned place) { return place != place_ && IsAlive(place); });
}

int ObjectTable::Sweep() {
  const Visit visit(*this);
  const Gate gate(file_.get());
  return gate ? SweepUnderGate() : 0;
}

HubWord* ObjectTable::hubs() {
  return shared_->hubs;
}

bool ObjectTable::ClaimHub(unsigned hub) {
  return TryLock(file_.get(), kHubBytes + static_cast<off_t>(hub));
}

// Gives the number of objects and of places that are free again.
int ObjectTable::SweepUnderGate() {
  const auto dead = std::make_unique<ProcessSet>();
  int freed = 0;
  for (unsigned place = 0; place < kMaxProcesses; ++place) {
    if (shared_->littered[place].load() == 0 || place == place_ || IsAlive(place)) continue;
    dead->Add(place);
    ++freed;
  }
  if (freed == 0) return 0;
  const std::uint32_t used = shared_->used;
  for (unsigned slot = 0; slot < used; ++slot) {
    if (IsSwept(slot, *dead)) ++freed;
  }
  dead->Any([this](unsigned place) {
    shared_->littered[place].store(0);
    return false;
  });
  return freed;
}

// True if the slot was a dead process's.
bool ObjectTable::IsSwept(unsigned slot, const ProcessSet& dead) {
  Slot& object = shared_->slots[slot];
  const SlotState state = SlotState::Of(shared_->states[slot].load());
  if (state.phase == Phase::kFree) return false;
  const auto isDead = [&dead](unsigned place) { return dead.Has(place); };
  const bool isUnfinished = state.phase == Phase::kClaimed && isDead(state.owner);
  // What a dead one has marked stays where it is until the mark goes.
  if (!isUnfinished && !object.held.Any(isDead) && !object.pinned.Any(isDead)) return false;
  {
    Bucket& bucket = shared_->buckets[object.bucket % kBuckets];
    const RobustLock lock(bucket.mutex);
    object.held.RemoveAll(dead);
    object.pinned.RemoveAll(dead);
    if (object.held.IsEmpty()) Unlink(bucket, slot);
  }
  if (isUnfinished) {
    Free(slot);
  } else if (object.pinned.IsEmpty()) {
    Bury(slot, state.generation);
  }
  return true;
}

bool ObjectTable::IsAlive(unsigned place) const {
  return place == place_ || IsLockedElsewhere(file_.get(), kPlaceBytes + static_cast<off_t>(place), 1);
}

bool ObjectTable::IsHeld(unsigned slot) {
  return shared_->slots[slot].held.Any([this](unsigned place) { return IsAlive(place); });
}

void ObjectTable::AddUse() {
  if (uses_++ == 0) shared_->littered[place_].store(1);
}

void ObjectTable::DropUse() {
  if (--uses_ == 0) shared_->littered[place_].store(0);
}

// Under the bucket's mutex, for a slot that somebody else pins or that we have claimed.
void ObjectTable::Hold(unsigned slot) {
  const std::lock_guard guard(lock_);
  AddUse();
  Counts& own = own_[slot];
  if (own.pins++ == 0) shared_->slots[slot].pinned.Add(place_);
  if (own.holds++ == 0) shared_->slots[slot].held.Add(place_);
}

std::shared_ptr<ObjectHeader> ObjectTable::Pin(unsigned slot) {
  return {&shared_->slots[slot].header, [this, slot](ObjectHeader*) { Unpin(slot); }};
}

void ObjectTable::Unpin(unsigned slot) {
  const std::lock_guard guard(lock_);
  const auto own = own_.find(slot);
  if (--own->second.pins == 0) {
    own_.erase(own);
    // Once the pin is gone, the slot may serve another object; Bury must not take that one for ours.
    const std::uint32_t generation = SlotState::Of(shared_->states[slot].load()).generation;
    shared_->slots[slot].pinned.Remove(place_);
    if (shared_->slots[slot].pinned.IsEmpty()) Bury(slot, generation);
  }
  DropUse();
}

unsigned ObjectTable::Lookup(const Bucket& bucket, std::string_view name) const {
  for (std::uint32_t at = bucket.first.load(); at != 0;) {
    const Slot& object = shared_->slots[at - 1];
    if (std::string_view(object.header.name, object.header.nameLength) == name) return at - 1;
    at = object.next.load();
  }
  return kMaxObjects;
}

// Out of its chain, if it is in it: a process may have been killed on its way in or out.
void ObjectTable::Unlink(Bucket& bucket, unsigned slot) {
  std::atomic<std::uint32_t>* link = &bucket.first;
  while (link->load() != 0 && link->load() != slot + 1) link = &shared_->slots[link->load() - 1].next;
  if (link->load() != 0) link->store(shared_->slots[slot].next.load());
  const SlotState state = SlotState::Of(shared_->states[slot].load());
  if (state.phase == Phase::kLive) shared_->states[slot].store(state.In(Phase::kDead).Word());
}

bool ObjectTable::Join(const Request& request, unsigned slot, Found* found) {
  const ObjectHeader& header = shared_->slots[slot].header;
  if (header.kind != static_cast<std::uint32_t>(request.kind)) {
    SetLastError(ERROR_INVALID_HANDLE);
    return false;
  }
  FileDescriptor data;
  if (header.dataSize != 0 && !(data = OpenObjectFile(DataFile(slot), 0))) return false;
  Hold(slot);
  *found = {slot, true, Pin(slot), std::move(data)};
  return true;
}

bool ObjectTable::Make(const Request& request, unsigned bucket, Found* found) {
  unsigned slot = 0;
  if (!Allocate(&slot)) return false;
  Slot& object = shared_->slots[slot];
  ObjectHeader& header = object.header;
  header.kind = static_cast<std::uint32_t>(request.kind);
  header.parameter = 0;
  header.dataSize = request.dataSize;
  header.nameLength = static_cast<std::uint32_t>(request.name.size());
  std::memcpy(header.name, request.name.data(), request.name.size());
  header.state.word = 0;
  header.state.sleepers = 0;
  header.state.hubs = 0;
  std::memset(&header.mutex, 0, sizeof header.mutex);
  header.abandoned = 0;
  FileDescriptor data;
  if (request.dataSize != 0) {
    data = OpenObjectFile(DataFile(slot), O_CREAT | O_EXCL);
    const int error = data ? ReserveSpace(data.get(), 0, request.dataSize) : 0;
    if (error != 0) FailWith(error);
    if (!data || error != 0) {
      Free(slot);
      return false;
    }
  }
  (*request.initialise)(header);
  object.bucket = bucket;
  Hold(slot);
  object.next.store(shared_->buckets[bucket].first.load());
  shared_->buckets[bucket].first.store(slot + 1);
  shared_->states[slot].store(SlotState::Of(shared_->states[slot].load()).In(Phase::kLive).Word());
  *found = {slot, false, Pin(slot), std::move(data)};
  return true;
}

bool ObjectTable::Allocate(unsigned* slot) {
  const std::uint32_t used = shared_->used;
  const std::uint32_t first = std::min(shared_->firstFree.load(), used);
  if (!ClaimFree(first, used, slot) && !ClaimFree(0, first, slot) && !ClaimUnused(slot)) return false;
  shared_->firstFree.store(*slot + 1);
  return true;
}

bool ObjectTable::ClaimFree(unsigned from, unsigned to, unsigned* slot) {
  for (unsigned i = from; i < to; ++i) {
    std::uint64_t word = shared_->states[i].load();
    SlotState state = SlotState::Of(word);
    if (state.phase != Phase::kFree) continue;
    ++state.generation;
    if (!shared_->states[i].compare_exchange_strong(word, state.ClaimedBy(place_).Word())) continue;
    *slot = i;
    return true;
  }
  return false;
}

// One that has never been used. The file grows by several at a time.
bool ObjectTable::ClaimUnused(unsigned* slot) {
  const RobustLock lock(shared_->growth);
  const std::uint32_t next = shared_->used;
  if (next == kMaxObjects) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return false;
  }
  if (next >= shared_->reserved) {
    const std::size_t start = offsetof(Shared, slots) + next * sizeof(Slot);
    if (const int error = ReserveSpace(file_.get(), start, kSlotsAtOnce * sizeof(Slot)); error != 0) {
      return FailWith(error);
    }
    shared_->reserved = next + kSlotsAtOnce;
  }
  shared_->states[next].store(SlotState{1, 0, Phase::kFree}.ClaimedBy(place_).Word());
  shared_->used = next + 1;
  *slot = next;
  return true;
}

// A dead one of that generation that nobody pins.
void ObjectTable::Bury(unsigned slot, std::uint32_t generation) {
  const SlotState dead{generation, 0, Phase::kDead};
  std::uint64_t word = dead.Word();
  if (shared_->states[slot].compare_exchange_strong(word, dead.ClaimedBy(place_).Word())) Free(slot);
}

// A claimed one.
void ObjectTable::Free(unsigned slot) {
  Slot& object = shared_->slots[slot];
  if (object.header.dataSize != 0) RemoveObjectFile(DataFile(slot));
  object.header.dataSize = 0;
  object.held.Clear();
  object.pinned.Clear();
  shared_->states[slot].store(SlotState::Of(shared_->states[slot].load()).In(Phase::kFree).Word());
  std::uint32_t first = shared_->firstFree.load();
  while (slot < first && !shared_->firstFree.compare_exchange_weak(first, slot)) {
  }
}

std::string ObjectTable::DataFile(unsigned slot) const {
  return ".data-" + Hex(shared_->serial) + "-" + std::to_string(slot);
}

std::size_t ObjectTable::BucketOf(std::string_view name) {
  std::uint64_t hash = 14695981039346656037u;
  for (const char c : name) hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211u;
  return (hash ^ hash >> 32) % kBuckets;
}

}  // namespace kestrun::platform
