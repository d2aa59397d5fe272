// A ring whose header a peer may change at any moment: between two operations, or all the time. No byte outside the
// region is touched, every operation ends, and until the first change to the header no byte is lost or changed.
//
// Input: a byte that says whether a second thread scribbles throughout, then operations of a byte and a word each.
#include <atomic>
#include <cstddef>
#include <memory>
#include <thread>
#include <vector>

#include "fuzz_input.h"
#include "transport/shared/ipc_ring.h"

namespace kestrun::fuzz {
namespace {

// Small, so that the ring wraps soon.
constexpr u32 kRegionSize = 256;
constexpr u32 kHeaderWords = IpcRing::kHeaderSize / sizeof(u32);

// Relaxed: a hostile peer keeps no order. Atomic only so that the race is no undefined behaviour in this process.
void Poke(u32* header, u32 field, u32 value) {
  std::atomic_ref<u32>(header[field % kHeaderWords]).store(value, std::memory_order_relaxed);
}

// Writes the words into the header, one after the other and again from the first, until the object is destroyed.
class Scribbler {
 public:
  Scribbler(u32* header, std::vector<u32> words)
      : thread_([this, header, words] {
          for (u32 i = 0; !isOver_; ++i) Poke(header, i, words[i % words.size()]);
        }) {}
  ~Scribbler() {
    isOver_ = true;
    thread_.join();
  }

 private:
  std::atomic<bool> isOver_{false};
  std::thread thread_;
};

// Both ends of a ring, in a heap block of exactly the size of the region: the address sanitizer reports any access
// beyond it.
struct Ends {
  Ends()
      : memory(static_cast<u32*>(std::calloc(kRegionSize, 1)), &std::free),
        writer(memory.get(), kRegionSize, "r"),
        reader(memory.get(), "r") {}
  std::unique_ptr<u32, void (*)(void*)> memory;
  IpcRing writer;
  IpcRing reader;
};

class Run {
 public:
  explicit Run(Ends& ends, bool isScribbled) : ends_(ends), isTrusted_(!isScribbled) {}

  void Step(u8 operation, u32 argument) {
    switch (operation % 6) {
      case 0:
      case 1:
        return Write(argument % (2 * kRegionSize));
      case 2:
        return Read(argument % (2 * kRegionSize));
      case 3:
        isTrusted_ = false;
        return Poke(ends_.memory.get(), operation / 6, argument);
      case 4:
        if (ends_.reader.GetUsed() >= kRegionSize) std::abort();
        return;
      default:
        ends_.reader.Discard();
        expected_.clear();
    }
  }

 private:
  void Write(u32 length) {
    std::string text(length, '\0');
    for (char& c : text) c = static_cast<char>(++counter_);
    const u32 count = ends_.writer.Write(text.data(), length, 0);
    FUZZ_REQUIRE(count <= length);
    if (isTrusted_) expected_ += text.substr(0, count);
    if (isTrusted_) FUZZ_REQUIRE(ends_.writer.GetUsed() == expected_.size());
  }
  void Read(u32 length) {
    std::string text(length, '\0');
    const u32 count = ends_.reader.Read(text.data(), length, 0);
    FUZZ_REQUIRE(count <= length);
    if (!isTrusted_) return;
    FUZZ_REQUIRE(text.substr(0, count) == expected_.substr(0, length));
    expected_.erase(0, count);
  }

  Ends& ends_;
  bool isTrusted_;
  std::string expected_;
  u8 counter_ = 0;
};

}  // namespace
}  // namespace kestrun::fuzz

extern "C" int LLVMFuzzerTestOneInput(const kestrun::u8* data, std::size_t size) {
  using namespace kestrun::fuzz;
  Folder();
  Input input(data, size);
  const bool isScribbled = (input.Byte() & 1) != 0;
  Ends ends;
  Run run(ends, isScribbled);
  std::unique_ptr<Scribbler> scribbler;
  if (isScribbled) {
    std::vector<kestrun::u32> words;
    for (int i = 0; i < 7; ++i) words.push_back(input.Word());
    scribbler = std::make_unique<Scribbler>(ends.memory.get(), words);
  }
  while (!input.IsEmpty()) {
    const kestrun::u8 operation = input.Byte();
    run.Step(operation, input.Word());
  }
  return 0;
}
