// The slots of an object table: how they are found by name, claimed for a new object and freed again.
//
// A slot is *held* by the processes that have a handle on its object, which exists while one of these lives; it is
// *pinned* by the processes in which a call may still use its memory, and is reclaimed when no pin is left. The marks
// are the numbers of process slots (process_slots.h).
//
//   phase     meaning                           next
//   free      no marks                          claimed, by a compare-and-swap
//   claimed   one process fills or empties it   live; free
//   live      in the chain of its bucket        dead, when its last holder has gone
//   dead      out of the chain, still pinned    claimed, by the process that finds it without pins
//
// A bucket is a chain of live slots under a robust mutex, chosen by the hash of the name. Each change of a chain is one
// store, and each state in which a process can be killed is one that the sweep understands (object_sweep.h), so the
// next owner of a dead owner's mutex has nothing to mend. The generation of a slot keeps a late process from reclaiming
// it under the next object.
//
// Any thread of any process may call everything, but for the locks that a function asks for. Loads and stores of the
// layout are sequentially consistent, since marks and phases are compared with one another.
#ifndef KESTRUN_PLATFORM_LINUX_OBJECTS_OBJECT_SLOTS_H_
#define KESTRUN_PLATFORM_LINUX_OBJECTS_OBJECT_SLOTS_H_

#include <string>
#include <string_view>

#include "platform/linux/objects/object_layout.h"
#include "platform/linux/objects/process_slots.h"

namespace kestrun::platform {

class ObjectSlots {
 public:
  static constexpr unsigned kNone = kMaxObjects;

  // Borrows all three, which must outlive this object. The file grows where slots are used for the first time.
  ObjectSlots(int file, ObjectLayout& layout, const ProcessSlots& processes)
      : file_(file), layout_(layout), processes_(processes) {}

  ObjectSlot& operator[](unsigned slot) const { return layout_.slots[slot]; }
  // How many slots have ever been used; the others may have no memory in the file yet.
  unsigned Used() const { return layout_.used.load(); }
  SlotState State(unsigned slot) const { return SlotState::Of(layout_.states[slot].load()); }

  // Empties the whole table, whose file has that size. Under the gate, while no other process uses it.
  void StartAnew(std::size_t fileSize);

  // The slot in the chain of that bucket, or kNone. Under the bucket's mutex, as are the next two.
  unsigned Find(const ObjectBucket& bucket, std::string_view name) const;
  // Makes a claimed slot live.
  void Link(unsigned bucket, unsigned slot);
  // Makes a live slot dead. Also for one that a killed process left half in or out of the chain.
  void Unlink(ObjectBucket& bucket, unsigned slot);

  // True if a living process holds it.
  bool IsHeld(unsigned slot) const;

  // Claims a slot that no object uses. False with the last error if the table or the file system is full.
  bool Claim(unsigned* slot);
  // Gives a claimed slot back, with its data file.
  void Free(unsigned slot);
  // Frees the slot if it is dead and still of that generation. For one that has no pins.
  void Reclaim(unsigned slot, std::uint32_t generation);

  // The name of the file with the data of the slot's object.
  std::string DataFile(unsigned slot) const { return DataFileName(layout_.serial, slot); }

 private:
  bool ClaimFree(unsigned from, unsigned to, unsigned* slot);
  bool ClaimUnused(unsigned* slot);

  const int file_;
  ObjectLayout& layout_;
  const ProcessSlots& processes_;
};

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_OBJECTS_OBJECT_SLOTS_H_
