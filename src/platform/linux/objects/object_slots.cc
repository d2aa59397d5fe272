#include "platform/linux/objects/object_slots.h"

#include <algorithm>
#include <ctime>
#include <string>

#include "platform/api/base_api.h"
#include "platform/linux/objects/lock_holder.h"
#include "platform/linux/objects/object_folder.h"
#include "platform/linux/objects/robust_mutex.h"

namespace kestrun::platform {

namespace {

// The file grows by this many slots at a time.
constexpr unsigned kSlotsAtOnce = 32;

}  // namespace

void ObjectSlots::StartAnew(std::size_t fileSize) {
  const std::size_t room = fileSize > kFixedLayoutSize ? (fileSize - kFixedLayoutSize) / sizeof(ObjectSlot) : 0;
  layout_.reserved = static_cast<std::uint32_t>(std::min<std::size_t>(room, kMaxObjects));
  layout_.used = std::min(layout_.used.load(), layout_.reserved.load());
  for (unsigned slot = 0; slot < layout_.used; ++slot) {
    // Free also removes the data file that a killed process has left.
    if (State(slot).phase != SlotPhase::kFree) Free(slot);
    layout_.states[slot] = 0;
  }
  for (HubWord& hub : layout_.hubs) hub.sleepers = 0;
  for (ObjectBucket& bucket : layout_.buckets) {
    InitialiseRobustMutex(bucket.mutex);
    bucket.first = 0;
  }
  // Relaxed: no other process reads the flags before the gate is open, and opening it is a system call.
  for (auto& flag : layout_.hasMarks) flag.store(0, std::memory_order_relaxed);
  InitialiseRobustMutex(layout_.growth);
  layout_.firstFree = 0;
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  // The time serves as a number that earlier starts did not have, so that their data files are not taken for new ones.
  layout_.serial = static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(now.tv_nsec);
}

unsigned ObjectSlots::Find(const ObjectBucket& bucket, std::string_view name) const {
  for (std::uint32_t at = bucket.first.load(); at != 0;) {
    const ObjectSlot& object = layout_.slots[at - 1];
    if (std::string_view(object.header.name, object.header.nameLength) == name) return at - 1;
    at = object.next.load();
  }
  return kNone;
}

void ObjectSlots::Link(unsigned bucket, unsigned slot) {
  ObjectSlot& object = layout_.slots[slot];
  // The object's own link first, then the one store that puts it into the chain: a process killed in between leaves the
  // chain whole.
  object.next.store(layout_.buckets[bucket].first.load());
  layout_.buckets[bucket].first.store(slot + 1);
  layout_.states[slot].store(State(slot).In(SlotPhase::kLive).Word());
}

void ObjectSlots::Unlink(ObjectBucket& bucket, unsigned slot) {
  std::atomic<std::uint32_t>* link = &bucket.first;
  while (link->load() != 0 && link->load() != slot + 1) link = &layout_.slots[link->load() - 1].next;
  if (link->load() != 0) link->store(layout_.slots[slot].next.load());
  // A process killed between the two steps leaves a live slot outside of its chain, which the next Unlink of the slot
  // completes.
  const SlotState state = State(slot);
  if (state.phase == SlotPhase::kLive) layout_.states[slot].store(state.In(SlotPhase::kDead).Word());
}

bool ObjectSlots::IsHeld(unsigned slot) const {
  return layout_.slots[slot].held.Any([this](unsigned process) { return processes_.IsAlive(process); });
}

bool ObjectSlots::Claim(unsigned* slot) {
  // The search starts at the hint and wraps around; only if every used slot is taken does the file grow.
  const std::uint32_t used = layout_.used;
  const std::uint32_t first = std::min(layout_.firstFree.load(), used);
  if (!ClaimFree(first, used, slot) && !ClaimFree(0, first, slot) && !ClaimUnused(slot)) return false;
  layout_.firstFree.store(*slot + 1);
  return true;
}

bool ObjectSlots::ClaimFree(unsigned from, unsigned to, unsigned* slot) {
  for (unsigned i = from; i < to; ++i) {
    std::uint64_t word = layout_.states[i].load();
    SlotState state = SlotState::Of(word);
    if (state.phase != SlotPhase::kFree) continue;
    ++state.generation;
    if (!layout_.states[i].compare_exchange_strong(word, state.ClaimedBy(processes_.own()).Word())) continue;
    *slot = i;
    return true;
  }
  return false;
}

// Claims a slot that has never been used; the file gets room for it first.
bool ObjectSlots::ClaimUnused(unsigned* slot) {
  // A bucket's mutex is held here, and other processes wait for it with kTableLockLimitMs. This wait has half of that,
  // so that it gives up first and names the process that is really stopped.
  const RobustLock lock(layout_.growth, kTableLockLimitMs / 2);
  if (!lock) return FailByHolder(ProcessOfThread(OwnerThread(layout_.growth)));
  const std::uint32_t next = layout_.used;
  if (next == kMaxObjects) {
    ReportUnusableFolder("its object table is full, with " + std::to_string(kMaxObjects) + " objects");
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return false;
  }
  if (next >= layout_.reserved) {
    const std::size_t start = kFixedLayoutSize + next * sizeof(ObjectSlot);
    const int error = ReserveSpace(file_, start, kSlotsAtOnce * sizeof(ObjectSlot));
    if (error != 0) return FailInFolder(error);
    layout_.reserved = next + kSlotsAtOnce;
  }
  // Claimed before it is counted as used: a sweep looks at used slots only, and finds its owner there.
  layout_.states[next].store(SlotState{1, 0, SlotPhase::kFree}.ClaimedBy(processes_.own()).Word());
  layout_.used = next + 1;
  *slot = next;
  return true;
}

void ObjectSlots::Free(unsigned slot) {
  ObjectSlot& object = layout_.slots[slot];
  if (object.header.dataSize != 0) RemoveObjectFile(DataFile(slot));
  object.header.dataSize = 0;
  object.held.Clear();
  object.pinned.Clear();
  layout_.states[slot].store(State(slot).In(SlotPhase::kFree).Word());
  // Lowers the hint, so that low slots are used first and the table stays small.
  std::uint32_t first = layout_.firstFree.load();
  while (slot < first && !layout_.firstFree.compare_exchange_weak(first, slot)) {
  }
}

void ObjectSlots::Reclaim(unsigned slot, std::uint32_t generation) {
  const SlotState dead{generation, 0, SlotPhase::kDead};
  std::uint64_t word = dead.Word();
  if (layout_.states[slot].compare_exchange_strong(word, dead.ClaimedBy(processes_.own()).Word())) Free(slot);
}

}  // namespace kestrun::platform
