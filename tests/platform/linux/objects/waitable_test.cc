#include "platform/linux/objects/waitable.h"

#include <gtest/gtest.h>

#include "../../scoped_handle.h"
#include "platform/linux/objects/handle_table.h"
#include "platform/win32.h"
#include "support/child.h"
#include "support/names.h"

namespace kestrun::test {
namespace {

KESTRUN_CHILD(TakesSignals) {
  ScopedHandle event = OpenEventA(EVENT_ALL_ACCESS, FALSE, words[0].c_str());
  Say("ready");
  while (WaitForSingleObject(event, INFINITE) == WAIT_OBJECT_0) {
  }
  return 1;
}

// Reads the event's state without taking its signal.
bool IsTakenWithin(HANDLE event, DWORD limitMs) {
  const auto object = platform::LookUp<platform::Waitable>(event);
  const platform::Deadline deadline = platform::Deadline::After(limitMs);
  while (object->state().word.load() != 0) {
    if (deadline.HasPassed()) return false;
    Sleep(1);
  }
  return true;
}

// A waiter that dies just when it was chosen to be woken must not take the signal with it.
TEST(Waitable, ASignalSurvivesTheWaiterThatWasToGetIt) {
  const std::string name = UniqueName();
  ScopedHandle event = CreateEventA(nullptr, FALSE, FALSE, name.c_str());
  Child survivor = Child::Self("TakesSignals", {name});
  ASSERT_EQ(survivor.ReadLine(), "ready");
  for (int round = 0; round < 4; ++round) {
    Child victim = Child::Self("TakesSignals", {name});
    ASSERT_EQ(victim.ReadLine(), "ready");
    // The kernel wakes in the order in which they went to sleep: after this the victim is the first.
    SetEvent(event);
    ASSERT_TRUE(IsTakenWithin(event, 30000));
    SetEvent(event);
    victim.Kill();
    ASSERT_TRUE(IsTakenWithin(event, 30000)) << "the survivor sleeps on in round " << round;
  }
}

}  // namespace
}  // namespace kestrun::test
