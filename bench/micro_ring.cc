// The byte ring within one process: copying and locking, and the hand-over between two threads.
#include <benchmark/benchmark.h>

#include <string>
#include <thread>
#include <vector>

#include "platform/win32.h"
#include "transport/shared/ipc_ring.h"

namespace kestrun {
namespace {

constexpr u32 kRegionSize = 0x8000;

// Both ends of a ring, in plain memory.
struct RingEnds {
  explicit RingEnds(const char* what)
      : region(kRegionSize),
        name(std::string("bench_ring_") + what + std::to_string(GetCurrentProcessId())),
        writer(region.data(), kRegionSize, name),
        reader(region.data(), name) {}
  std::vector<u8> region;
  std::string name;
  IpcRing writer;
  IpcRing reader;
};

// A write and the read of it on one thread, so that neither has to wait or to be woken.
void BM_RingWriteRead(benchmark::State& state) {
  RingEnds ends("same");
  std::vector<u8> block(static_cast<size_t>(state.range(0)), 'r');
  u32 size = static_cast<u32>(block.size());
  for (auto _ : state) {
    ends.writer.Write(block.data(), size, kNoLimit);
    for (u32 got = 0; got < size;) got += ends.reader.Read(block.data(), size - got, kNoLimit);
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_RingWriteRead)->ArgName("bytes")->Arg(64)->Arg(8192);

void BM_RingTransfer(benchmark::State& state) {
  RingEnds ends("threads");
  const u32 size = static_cast<u32>(state.range(0));
  constexpr u32 kWrites = 256;
  for (auto _ : state) {
    std::jthread writer([&ends, size] {
      std::vector<u8> block(size, 'w');
      for (u32 i = 0; i < kWrites; ++i) ends.writer.Write(block.data(), size, kNoLimit);
    });
    std::vector<u8> block(size);
    for (u32 got = 0; got < size * kWrites;) got += ends.reader.Read(block.data(), size, kNoLimit);
  }
  state.SetBytesProcessed(state.iterations() * size * kWrites);
}
BENCHMARK(BM_RingTransfer)->ArgName("bytes")->Arg(64)->Arg(8192)->Arg(65536)->UseRealTime();

}  // namespace
}  // namespace kestrun
