// What a client and its master share while the client asks for a place through the table of places, which is there
// when the master reads Extensions/ReclaimPlaces. docs/protocol.md tells the steps.
#ifndef KESTRUN_PROTOCOL_PLACE_TABLE_H_
#define KESTRUN_PROTOCOL_PLACE_TABLE_H_

#include <atomic>
#include <string>

#include "runtime/types.h"

namespace kestrun {

// A zeroed region of memory of this form, under GetTableName. A slot is zero or belongs to the client whose process id
// and stamp stand in it; each step is one change of the whole word, so that a client killed at any moment leaves a word
// that tells where it stood.
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
// The event by which clients call the master.
inline std::string GetCallName(const std::string& id) {
  return GetTableName(id) + ".call";
}
// The mutex that the master owns as long as it lives.
inline std::string GetKeeperName(const std::string& id) {
  return GetTableName(id) + ".keeper";
}
// The event of the client whose word this is: the master answers with it, and learns by its handle count that the
// client has gone.
inline std::string GetPlaceName(const std::string& id, u64 word) {
  return "zelvo_client_place_" + id + "." + std::to_string(word >> 32) + "." +
         std::to_string(static_cast<u32>(word) >> 2);
}

}  // namespace kestrun

#endif  // KESTRUN_PROTOCOL_PLACE_TABLE_H_
