#include "runtime/threads/thread_pool.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "runtime/threads/blocking_queue.h"

namespace kestrun {
namespace {

constexpr u32 kLongTime = 30000;

TEST(BlockingQueue, KeepsItsOrderButForTheFront) {
  BlockingQueue<int> queue;
  int item = 0;
  EXPECT_FALSE(queue.Pop(item, 0));
  queue.Push(1);
  queue.Push(2);
  queue.PushFront(0);
  EXPECT_EQ(queue.GetSize(), 3u);
  for (int expected : {0, 1, 2}) {
    ASSERT_TRUE(queue.Pop(item, 0));
    EXPECT_EQ(item, expected);
  }
  EXPECT_FALSE(queue.Pop(item, 10));
}

// Of two items pushed together neither lies in the queue while a consumer waits: each consumer keeps its item until
// the other one has come too.
TEST(BlockingQueue, TwoItemsReachTwoWaiters) {
  constexpr int kRounds = 500;
  BlockingQueue<int> queue;
  Condition hasOne[2], roundOver[2];
  auto consume = [&](int self) {
    int item = 0;
    for (int i = 0; i < kRounds && queue.Pop(item, kLongTime); ++i) {
      hasOne[self].Signal();
      if (!hasOne[1 - self].Wait(kLongTime)) return;
      roundOver[self].Signal();
    }
  };
  std::thread first(consume, 0), second(consume, 1);
  int rounds = 0;
  for (bool inTime = true; rounds < kRounds && inTime; rounds += inTime) {
    queue.Push(1);
    queue.Push(2);
    inTime = roundOver[0].Wait(kLongTime) && roundOver[1].Wait(kLongTime);
  }
  first.join();
  second.join();
  EXPECT_EQ(rounds, kRounds);
}

using Pool = ThreadPool<Functor0<void>::Type>;

// A pool that shows its worker, so that a test can wait for it.
class OpenPool : public Pool {
 public:
  OpenPool() : Pool("open") {}
  rc_ptr<Thread> worker;

 protected:
  Thread* CreateWorker(int index) override {
    worker = new Thread("open worker " + std::to_string(index));
    return worker.Get();
  }
};

// Work for a pool: items that note their letter, wait, or throw.
class ThreadPoolTest : public ::testing::Test {
 protected:
  rc_ptr<Functor0<void>::_DelegateBase> Note(char letter) {
    return MakeClosure(MakeDelegate(&ThreadPoolTest::Add, this), letter);
  }
  rc_ptr<Functor0<void>::_DelegateBase> Block() { return MakeDelegate(&ThreadPoolTest::WaitForGo, this); }
  rc_ptr<Functor0<void>::_DelegateBase> Fail() { return MakeDelegate(&ThreadPoolTest::Throw, this); }

  void Add(char letter) {
    const Lock lock(lock_);
    notes_ += letter;
    if (letter == '.') done_.Signal();
  }
  void WaitForGo() {
    blocked_.Signal();
    go_.Wait(kNoLimit);
  }
  void Throw() { throw SystemException(5, "x", "SystemException"); }

  CriticalSection lock_;
  std::string notes_;
  Condition done_, blocked_, go_;
};

TEST_F(ThreadPoolTest, WithoutThreadsItemsRunAtOnce) {
  Pool pool("Reactor");
  pool.Start(0);
  EXPECT_TRUE(pool.Queue(Note('a'), false));
  EXPECT_EQ(notes_, "a");
  EXPECT_THROW(pool.Queue(Fail(), false), SystemException);
  EXPECT_TRUE(pool.Stop(0));
  EXPECT_TRUE(pool.Stop(0));
  EXPECT_FALSE(pool.Queue(Note('b'), false));
  EXPECT_EQ(notes_, "a");
}

TEST_F(ThreadPoolTest, UrgentItemsGoAheadOfWhatHasNotBegun) {
  Pool pool("pool");
  pool.Start(1);
  pool.Queue(Block(), false);
  ASSERT_TRUE(blocked_.Wait(kLongTime));
  pool.Queue(Note('b'), false);
  pool.Queue(Note('.'), false);
  pool.Queue(Note('a'), true);
  go_.Signal();
  ASSERT_TRUE(done_.Wait(kLongTime));
  EXPECT_TRUE(pool.Stop(kLongTime));
  EXPECT_EQ(notes_, "ab.");
}

TEST_F(ThreadPoolTest, WorkerSurvivesAnExceptionAndPrintsIt) {
  ::testing::internal::CaptureStderr();
  {
    Pool pool("Reactor");
    pool.Start(1);
    pool.Queue(Fail(), false);
    pool.Queue(Note('.'), false);
    EXPECT_TRUE(done_.Wait(kLongTime));
  }
  std::string printed = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(printed.substr(0, printed.find_first_of("\r\n")), "Pool:Reactor Job:0 : x: error=5");
}

TEST_F(ThreadPoolTest, StopDropsWhatWaitsAndAllItsCallersReturn) {
  OpenPool pool;
  pool.Start(1);
  pool.Queue(Block(), false);
  ASSERT_TRUE(blocked_.Wait(kLongTime));
  for (char letter : {'a', 'b', 'c'}) pool.Queue(Note(letter), false);
  std::atomic<int> stopped{0};
  std::vector<std::thread> stoppers;
  for (int i = 0; i < 3; ++i) stoppers.emplace_back([&] { stopped += pool.Stop(kLongTime); });
  // The stop shows in the worker's priority; until then the worker would go on with the next item.
  while (GetThreadPriority(pool.worker->GetHandle()) != THREAD_PRIORITY_ABOVE_NORMAL) SwitchToThread();
  go_.Signal();
  for (auto& stopper : stoppers) stopper.join();
  EXPECT_EQ(stopped, 3);
  EXPECT_FALSE(pool.Queue(Note('d'), true));
  EXPECT_EQ(notes_, "");
}

TEST_F(ThreadPoolTest, StopAfterOneThatTimedOutIsFalseAtOnce) {
  OpenPool pool;
  pool.Start(1);
  pool.Queue(Block(), false);
  ASSERT_TRUE(blocked_.Wait(kLongTime));
  EXPECT_FALSE(pool.Stop(10));
  EXPECT_FALSE(pool.Stop(kNoLimit));
  go_.Signal();
  EXPECT_TRUE(pool.worker->Wait(kLongTime));
}

}  // namespace
}  // namespace kestrun
