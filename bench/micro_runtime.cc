// Kernel objects, queues and processes: the parts that every job passes through.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/win32.h"
#include "runtime/base/handle.h"
#include "runtime/base/rc_ptr.h"
#include "runtime/files/memory_stream.h"
#include "runtime/process/process.h"
#include "runtime/threads/blocking_queue.h"
#include "runtime/threads/sync.h"

namespace kestrun {
namespace {

std::string UniqueName(const char* what) {
  return std::string("bench_") + what + "_" + std::to_string(GetCurrentProcessId());
}

void BM_EventCreateClose(benchmark::State& state) {
  std::string name = UniqueName("create");
  for (auto _ : state) UniqueHandle event(CreateEventA(nullptr, FALSE, FALSE, name.c_str()));
}
BENCHMARK(BM_EventCreateClose);

void BM_EventOpenClose(benchmark::State& state) {
  std::string name = UniqueName("open");
  UniqueHandle held(CreateEventA(nullptr, FALSE, FALSE, name.c_str()));
  for (auto _ : state) UniqueHandle event(OpenEventA(EVENT_ALL_ACCESS, FALSE, name.c_str()));
}
BENCHMARK(BM_EventOpenClose);

void BM_MutexLockUnlock(benchmark::State& state) {
  Mutex mutex(UniqueName("mutex").c_str());
  for (auto _ : state) {
    mutex.Lock(kNoLimit);
    mutex.Unlock();
  }
}
BENCHMARK(BM_MutexLockUnlock);

void BM_EventSetAndWait(benchmark::State& state) {
  Condition event(UniqueName("set").c_str());
  for (auto _ : state) {
    event.Signal();
    event.Wait(kNoLimit);
  }
}
BENCHMARK(BM_EventSetAndWait);

// Two threads wake each other in turn.
void BM_EventPingPong(benchmark::State& state) {
  Condition there(UniqueName("there").c_str());
  Condition back(UniqueName("back").c_str());
  // Both sides have to agree on the number of turns, so they take them in batches.
  constexpr int kTurns = 100;
  for (auto _ : state) {
    std::jthread other([&there, &back] {
      for (int i = 0; i < kTurns; ++i) {
        there.Wait(kNoLimit);
        back.Signal();
      }
    });
    for (int i = 0; i < kTurns; ++i) {
      there.Signal();
      back.Wait(kNoLimit);
    }
  }
  state.SetItemsProcessed(state.iterations() * kTurns);
}
BENCHMARK(BM_EventPingPong)->UseRealTime();

// Only the last of the handles is signalled, which a search from the front finds last.
void BM_WaitForMany(benchmark::State& state) {
  std::vector<std::unique_ptr<Condition>> events;
  std::vector<HANDLE> handles;
  for (int i = 0; i < state.range(0); ++i) {
    events.push_back(std::make_unique<Condition>());
    handles.push_back(events.back()->GetHandle());
  }
  for (auto _ : state) {
    events.back()->Signal();
    DWORD woken = WaitForMultipleObjects(static_cast<DWORD>(handles.size()), handles.data(), FALSE, INFINITE);
    benchmark::DoNotOptimize(woken);
  }
}
BENCHMARK(BM_WaitForMany)->ArgName("handles")->Arg(2)->Arg(63);

void BM_QueuePushPop(benchmark::State& state) {
  BlockingQueue<int> queue;
  int item = 0;
  for (auto _ : state) {
    queue.Push(1);
    queue.Pop(item, kNoLimit);
  }
}
BENCHMARK(BM_QueuePushPop);

// One thread pushes what another pops.
void BM_QueueBetweenThreads(benchmark::State& state) {
  BlockingQueue<int> queue;
  constexpr int kItems = 1000;
  for (auto _ : state) {
    std::jthread producer([&queue] {
      for (int i = 0; i < kItems; ++i) queue.Push(i);
    });
    int item = 0;
    for (int i = 0; i < kItems; ++i) queue.Pop(item, kNoLimit);
  }
  state.SetItemsProcessed(state.iterations() * kItems);
}
BENCHMARK(BM_QueueBetweenThreads)->UseRealTime();

// As the master runs a job: a job object of its own, both outputs captured.
void BM_SpawnCaptured(benchmark::State& state) {
  for (auto _ : state) {
    rc_ptr<Process> process(new Process(""));
    rc_ptr<MemoryStream> out(new MemoryStream);
    rc_ptr<MemoryStream> err(new MemoryStream);
    u32 flags = Process::PIPE_STDIN | Process::PIPE_STDOUT | Process::PIPE_STDERR | Process::OWN_JOB;
    if (process->Run("/bin/true", out.Get(), err.Get(), flags, nullptr, 0, false) != 0) {
      state.SkipWithError("/bin/true did not run");
      break;
    }
  }
}
BENCHMARK(BM_SpawnCaptured)->UseRealTime()->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace kestrun
