// The table through which clients ask their master for admission. It exists while a master runs with the setting
// Extensions/ReclaimPlaces; a second table serves job slots where the system has no local streams. docs/protocol.md has
// the steps.
#ifndef KESTRUN_PROTOCOL_PLACE_TABLE_H_
#define KESTRUN_PROTOCOL_PLACE_TABLE_H_

#include <atomic>
#include <cstdint>
#include <string>

#include "runtime/base/types.h"

namespace kestrun {

// The form of the shared memory named GetTableName, which is zero at first. A slot is zero, or belongs to the client
// whose process id and stamp it holds. Each step changes the whole word at once, so that a client that is killed at any
// moment leaves a word that tells how far it had come.
struct PlaceTable {
  static constexpr u32 kSlots = 1024;
  static constexpr u32 kSize = kSlots * 8;

  std::atomic<u64> slots[kSlots];
};
static_assert(sizeof(PlaceTable) == PlaceTable::kSize && std::atomic<u64>::is_always_lock_free);

enum class PlaceState : u32 {
  kNone = 0,
  kAsking = 1,    // set by the client, from zero; one that gives up makes it zero again
  kGranted = 2,   // set by the master, from asking
  kReturned = 3,  // set by the client, from granted; the master makes it zero
};

inline u64 MakePlaceWord(u32 processId, u32 stamp, PlaceState state) {
  return u64{processId} << 32 | (stamp & 0x3FFFFFFF) << 2 | static_cast<u32>(state);
}
inline PlaceState GetPlaceState(u64 word) {
  return static_cast<PlaceState>(word & 3);
}
inline u64 WithPlaceState(u64 word, PlaceState state) {
  return (word & ~u64{3}) | static_cast<u32>(state);
}

inline std::string GetTableName(const std::string& id) {
  return "zelvo_client_places_" + id;
}
// The event with which clients tell the master that a slot has changed.
inline std::string GetCallName(const std::string& id) {
  return GetTableName(id) + ".call";
}
// The mutex that the master owns as long as it lives.
inline std::string GetKeeperName(const std::string& id) {
  return GetTableName(id) + ".keeper";
}
// The event of the client whose word this is: the master answers with it, and learns from its handle count that the
// client has ended.
inline std::string GetPlaceName(const std::string& id, u64 word) {
  return "zelvo_client_place_" + id + "." + std::to_string(word >> 32) + "." +
         std::to_string(static_cast<u32>(word) >> 2);
}

// What master and observers are told of the tool of a client that asks for a job slot. It is in shared memory under
// GetNoteName, beside the client's event. The client writes the texts before it asks, and how the tool has ended before
// it returns the slot.
struct ToolNote {
  static constexpr u32 kSize = 4096;
  static constexpr u32 kMostText = kSize - 32;

  std::atomic<u32> hasEnded;  // last
  i32 exitCode;
  std::int64_t cpuUs;
  std::int64_t peakMemoryBytes;
  u32 textSize;
  char text[kMostText];  // as that of a slot request
};
static_assert(sizeof(ToolNote) <= ToolNote::kSize);

inline std::string GetNoteName(const std::string& id, u64 word) {
  return GetPlaceName(id, word) + ".note";
}

// The id of the table in which clients ask for job slots, where the system has no local streams.
inline std::string GetJobSlotsId(const std::string& id) {
  return id + ".jobs";
}

}  // namespace kestrun

#endif  // KESTRUN_PROTOCOL_PLACE_TABLE_H_
