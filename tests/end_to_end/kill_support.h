// What tests that kill processes need beside the platform layer.
#ifndef KESTRUN_TESTS_END_TO_END_KILL_SUPPORT_H_
#define KESTRUN_TESTS_END_TO_END_KILL_SUPPORT_H_

#include <string>

#include "build_fixture.h"
#include "protocol/place_table.h"
#include "transport/handle_count.h"

namespace kestrun::test {

// Conditions are waited for this long; machines can be slow.
inline constexpr unsigned kKillLimitMs = 60000;

// Ends one process at once. Its caller knows that it runs.
void KillProcess(unsigned long pid);

// How long random kills may go on: 0 is until their number is reached.
extern const unsigned kRandomKillLimitMs;

// The named objects in the folder that no process holds any more have gone with this call. What is left but the events
// of tests, one a line; always empty where the system itself does that.
std::string NamedObjectsLeft(const std::string& folder);

// How many processes run with KESTRUN_ID=ID in the environment that they were started with; 0 where the system does
// not tell.
int CountProcessesOf(const std::string& id);

// Looks every few milliseconds.
template <class Condition>
bool BecomesTrue(const Condition& condition, unsigned limitMs = kKillLimitMs) {
  const u32 start = GetTickCount();
  while (!condition()) {
    if (GetTickCount() - start > limitMs) return false;
    Sleep(2);
  }
  return true;
}

// An event that processes of a job hold open as long as they live.
class Tether {
 public:
  const std::string& Name() const { return event_.Name(); }
  void Signal() { event_.Signal(); }
  bool IsHeld() const { return GetHandleCount(event_.Handle()) != 1; }

 private:
  NamedEvent event_{true};
};

// The places of a build, seen from outside.
class PlaceCount {
 public:
  explicit PlaceCount(const std::string& id)
      : access_(OpenSemaphoreA(SEMAPHORE_ALL_ACCESS, FALSE, ("zelvo_client_access_" + id).c_str())) {
    EXPECT_NE(access_, nullptr);
  }
  ~PlaceCount() { CloseHandle(access_); }
  PlaceCount(const PlaceCount&) = delete;
  PlaceCount& operator=(const PlaceCount&) = delete;

  // Waits until `count` places are free, and no more are: takes them all, and gives them back.
  void Expect(int count) {
    int taken = 0;
    while (taken < count && WaitForSingleObject(access_, kKillLimitMs) == WAIT_OBJECT_0) ++taken;
    EXPECT_EQ(taken, count) << "places are lost";
    EXPECT_EQ(WaitForSingleObject(access_, 0), DWORD{WAIT_TIMEOUT}) << "more places than there should be";
    if (taken > 0) ReleaseSemaphore(access_, taken, nullptr);
  }

 private:
  HANDLE access_;
};

}  // namespace kestrun::test

#endif  // KESTRUN_TESTS_END_TO_END_KILL_SUPPORT_H_
