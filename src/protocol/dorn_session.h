// How the `dorn` processes of a user and the master that they share find one another.
//
//   name                 kind     held by                          meaning
//   dorn_session         memory   every dorn, and the master       the record below
//   dorn_session.join    mutex    a dorn that joins or leaves, the  one of them at a time decides; the record changes
//                                 master while it decides to end    under it alone
//   dorn_session.users   event    every dorn, from its joining to   exists as long as some dorn lives, in whatever way
//                                 its end, and never the master     dorns end
//   dorn_session.<id>    event    the master of this id            tells it from another process that got its number
//
// A dorn that finds a master in the record joins it; any other starts one. The master ends when no dorn is left: the
// last one that leaves tells it, and if that one was killed, the system does (dorn_session.users is gone).
#ifndef KESTRUN_PROTOCOL_DORN_SESSION_H_
#define KESTRUN_PROTOCOL_DORN_SESSION_H_

#include <atomic>
#include <cstddef>
#include <string>

#include "runtime/base/types.h"

namespace kestrun {

inline constexpr const char* kDornSessionName = "dorn_session";
inline constexpr const char* kDornJoinName = "dorn_session.join";
inline constexpr const char* kDornUsersName = "dorn_session.users";
// In the environment of a master that dorn starts: dorn's process id, a colon and the master's id. The master takes it
// out again.
inline constexpr const char* kDornVariable = "KESTRUN_DORN_SESSION";

// The event of a master.
inline std::string GetDornMasterName(const std::string& id) {
  return std::string(kDornSessionName) + "." + id;
}

// All processes of a user may write the record, so what is read from it is checked.
struct DornSession {
  static constexpr u32 kSize = 65536;
  static constexpr u32 kVersion = 2;
  static constexpr std::size_t kIdSize = 128;
  static constexpr std::size_t kMaxUsers = 64;

  enum Ending : u32 {
    kRuns = 0,
    kEnds = 1,        // as soon as the tools that it runs have ended
    kEndsByForce = 2  // and by force if that takes more than a second or two
  };

  std::atomic<u32> version;  // 0 in a new record
  std::atomic<u32> ending;
  // MakeMaster of two process ids: that of the dorn that starts the master, and that of the master, which is 0 until
  // the master has come. A master whose dorn was killed may come at any time. So a master changes this word only if it
  // still has the id of its own dorn, and a dorn that starts the next master only if it is still what that dorn has
  // read: both by compare-and-swap.
  std::atomic<u64> master;
  std::atomic<u32> wantedJobs;  // by the dorn that started the master; 0: as its settings say
  std::atomic<u32> jobs;        // the master's limit; 0 until it has come
  char id[kIdSize];             // with its NUL; changes only while there is no master

  // Process ids of dorns, for a master that sleeps until one of them ends. The list need not be complete, and ids of
  // dorns that have ended stay until another takes the entry. Only the event tells whether any dorn lives.
  std::atomic<u32> users[kMaxUsers];

  static constexpr u64 MakeMaster(u32 dornProcess, u32 masterProcess) {
    return static_cast<u64>(dornProcess) << 32 | masterProcess;
  }
  static constexpr u32 GetMasterProcess(u64 master) { return static_cast<u32>(master); }
};
static_assert(sizeof(DornSession) <= DornSession::kSize && std::atomic<u64>::is_always_lock_free);

}  // namespace kestrun

#endif  // KESTRUN_PROTOCOL_DORN_SESSION_H_
