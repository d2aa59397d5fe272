#include "runtime/threads/sync.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "support/expect_throw.h"
#include "support/names.h"

namespace kestrun {
namespace {

using test::ExpectThrow;
using test::UniqueName;

constexpr u32 kLongTime = 30000;

// True if another thread could have the mutex now.
bool IsFree(Mutex& mutex) {
  bool taken = false;
  std::thread([&] {
    taken = mutex.Lock(0);
    if (taken) mutex.Unlock();
  }).join();
  return taken;
}

// A wait gives up the mutex and takes it again. Each round hands a number over and back: a signal that fell between the
// release of the mutex and the wait would leave both sides waiting.
TEST(ConditionVariable, LosesNoSignalBetweenMutexAndWait) {
  constexpr int kRounds = 2000;
  Mutex mutex;
  ConditionVariable toOther, toMain;
  int turn = 0;
  bool inTime = true;
  auto play = [&](int parity, ConditionVariable& mine, ConditionVariable& theirs) {
    MutexLock lock(&mutex);
    while (turn < kRounds && inTime) {
      if (turn % 2 != parity) {
        inTime = mine.Wait(mutex, kLongTime);
        continue;
      }
      ++turn;
      theirs.Signal();
    }
  };
  std::thread other([&] { play(1, toOther, toMain); });
  play(0, toMain, toOther);
  other.join();
  EXPECT_TRUE(inTime);
  EXPECT_EQ(turn, kRounds);
  MutexLock lock(&mutex);
  while (toMain.Wait(mutex, 0)) continue;
  EXPECT_FALSE(IsFree(mutex)) << "a wait that ends has the mutex again";
}

}  // namespace
}  // namespace kestrun
