#include "runtime/threads/thread.h"

#include <gtest/gtest.h>

#include <cstring>

#include "runtime/threads/event_timer.h"
#include "runtime/threads/sync.h"

namespace kestrun {
namespace {

constexpr u32 kLongTime = 30000;

// A body that notes where it ran and ends when it is told to.
struct Body {
  void Run() {
    ++runs;
    current = Thread::GetCurrent();
    u32 exitCode = 77;
    selfWait = current->Wait(kNoLimit, &exitCode) && exitCode == 77;
    priority = GetThreadPriority(GetCurrentThread());
    go.Wait(kNoLimit);
  }
  int runs = 0;
  rc_ptr<Thread> current;
  bool selfWait = false;
  int priority = 99;
  Condition go;
};

TEST(Thread, RunsItsBodyOnceAndTellsItsEnd) {
  Body body;
  rc_ptr<Thread> thread(new Thread("worker"));
  EXPECT_FALSE(thread->Wait(0));
  ASSERT_TRUE(thread->Start(MakeDelegate(&Body::Run, &body), Thread::kBelowNormalPriority));
  EXPECT_FALSE(thread->Start(MakeDelegate(&Body::Run, &body)));
  EXPECT_FALSE(thread->Wait(0));
  EXPECT_FALSE(Thread::WaitAll({thread}, 0));
  body.go.Signal();
  u32 exitCode = 77;
  ASSERT_TRUE(thread->Wait(kLongTime, &exitCode));
  EXPECT_EQ(exitCode, 0u);
  EXPECT_EQ(body.runs, 1);
  EXPECT_EQ(body.current, thread);
  EXPECT_TRUE(body.selfWait);
  EXPECT_EQ(body.priority, THREAD_PRIORITY_BELOW_NORMAL);
}

TEST(Thread, WaitAllTakesAnyNumberAndNone) {
  EXPECT_TRUE(Thread::WaitAll({}, 0));
  constexpr int kThreads = 70;
  Semaphore gate(kThreads, nullptr);
  for (int i = 0; i < kThreads; ++i) gate.Wait(0);
  struct Waiter {
    void Run() { gate->Wait(kNoLimit); }
    Semaphore* gate;
  } waiter{&gate};
  std::vector<rc_ptr<Thread>> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.push_back(new Thread("waiter"));
    ASSERT_TRUE(threads.back()->Start(MakeDelegate(&Waiter::Run, &waiter)));
  }
  threads.push_back(new Thread("never started"));
  for (int i = 0; i < kThreads - 1; ++i) gate.Release();
  EXPECT_FALSE(Thread::WaitAll(threads, 10));
  gate.Release();
  EXPECT_TRUE(Thread::WaitAll(threads, kLongTime));
}

TEST(EventTimer, MeasuresFromStartToStop) {
  const auto now = [] {
    SYSTEMTIME date;
    FILETIME time;
    GetLocalTime(&date);
    SystemTimeToFileTime(&date, &time);
    return (static_cast<u64>(time.dwHighDateTime) << 32 | time.dwLowDateTime) / 10000;
  };
  EventTimer timer("event timer");
  const u64 before = now();
  timer.Start();
  Condition().Wait(30);
  timer.Stop();
  EXPECT_GE(timer.GetElapsed(), 15u);
  EXPECT_GE(timer.GetStartTime(), before);
  EXPECT_LE(timer.GetStartTime(), now());
}

}  // namespace
}  // namespace kestrun
