// A connector's turn: the mutex L.lck of a listening name L, held for a scope.
//
// A turn takes well below a millisecond, but a process that is stopped during its turn keeps it. So the wait goes on
// without a limit only while the turn passes from one connector to another.
//
// For one thread, on which it is made and destroyed.
#ifndef KESTRUN_TRANSPORT_SHARED_INTRODUCTION_TURN_H_
#define KESTRUN_TRANSPORT_SHARED_INTRODUCTION_TURN_H_

#include <functional>
#include <string>

#include "runtime/base/types.h"
#include "runtime/threads/sync.h"
#include "transport/shared/mutex_owner.h"

namespace kestrun {

class IntroductionTurn {
 public:
  // Waits until it has its turn, or until one other connector has kept it for timeoutMs. Where the system does not tell
  // the owner of a mutex, the whole wait ends after timeoutMs. Throws SyncException.
  IntroductionTurn(const std::string& lockName, u32 timeoutMs);
  ~IntroductionTurn();
  IntroductionTurn(const IntroductionTurn&) = delete;
  IntroductionTurn& operator=(const IntroductionTurn&) = delete;

  explicit operator bool() const { return isHeld_; }
  // After a wait that timed out: the process that keeps the turn, 0 if unknown.
  u32 GetHolder() const { return holder_; }

  // Repeats `wait`, which gives false after its timeout, as long as the mutex has changed its owner during it. `holder`
  // is the process that owned the mutex after the last wait.
  using Wait = std::function<bool()>;
  using Query = std::function<MutexOwner()>;
  static bool Await(const Wait& wait, const Query& owner, u32& holder);

 private:
  Mutex mutex_;
  u32 holder_ = 0;
  bool isHeld_;
};

}  // namespace kestrun

#endif  // KESTRUN_TRANSPORT_SHARED_INTRODUCTION_TURN_H_
