#include "master/repeated_event.h"

#include <gtest/gtest.h>

#include "runtime/base/handle.h"

namespace kestrun {
namespace {

TEST(RepeatedEvent, TellsAnEventThatStaysSetOnce) {
  const UniqueHandle event(CreateEventA(nullptr, TRUE, TRUE, nullptr));
  RepeatedEvent watched(event.Get());
  EXPECT_TRUE(watched.IsAwaited());
  watched.OnSet();
  for (int i = 0; i < 3; ++i) {
    EXPECT_FALSE(watched.Look());
    EXPECT_FALSE(watched.IsAwaited());
  }
  ResetEvent(event.Get());
  EXPECT_FALSE(watched.Look());
  EXPECT_TRUE(watched.IsAwaited());
}

TEST(RepeatedEvent, TellsEachSettingOfAnEventThatResetsItself) {
  const UniqueHandle event(CreateEventA(nullptr, FALSE, FALSE, nullptr));
  RepeatedEvent watched(event.Get());
  watched.OnSet();
  for (int i = 0; i < 3; ++i) {
    SetEvent(event.Get());
    EXPECT_TRUE(watched.Look());
    EXPECT_FALSE(watched.IsAwaited());
  }
  EXPECT_FALSE(watched.Look());
  EXPECT_TRUE(watched.IsAwaited());
}

}  // namespace
}  // namespace kestrun
