// A set of process slots in the object table, each of which stands for one process (process_slots.h).
//
// Lies in memory that processes share; zeroed memory is the empty set. Any thread of any process may change it, each
// process its own bit. The protocol of holds and pins (object_slots.h) compares a set with other words of the table, so
// all operations are sequentially consistent.
#ifndef KESTRUN_PLATFORM_LINUX_OBJECTS_PROCESS_SET_H_
#define KESTRUN_PLATFORM_LINUX_OBJECTS_PROCESS_SET_H_

#include <atomic>
#include <bit>
#include <cstdint>

namespace kestrun::platform {

constexpr unsigned kMaxProcesses = 4096;

class ProcessSet {
 public:
  void Add(unsigned process) { Word(process).fetch_or(Bit(process)); }
  void Remove(unsigned process) { Word(process).fetch_and(~Bit(process)); }
  bool Has(unsigned process) const { return (words_[process / kBits].load() & Bit(process)) != 0; }

  bool IsEmpty() const {
    for (const auto& word : words_) {
      if (word.load() != 0) return false;
    }
    return true;
  }

  // For a set that no other process changes.
  void Clear() {
    for (auto& word : words_) {
      // Most words are 0, and a store would make their page dirty. Relaxed: no other process changes them.
      if (word.load(std::memory_order_relaxed) != 0) word.store(0);
    }
  }

  // Removes the members of the other set.
  void RemoveAll(const ProcessSet& others) {
    for (unsigned i = 0; i < kWords; ++i) {
      const std::uint64_t common = words_[i].load() & others.words_[i].load();
      if (common != 0) words_[i].fetch_and(~common);
    }
  }

  // True if the test is true for any member; stops there.
  template <class Test>
  bool Any(const Test& test) const {
    for (unsigned i = 0; i < kWords; ++i) {
      for (std::uint64_t word = words_[i].load(); word != 0; word &= word - 1) {
        if (test(i * kBits + static_cast<unsigned>(std::countr_zero(word)))) return true;
      }
    }
    return false;
  }

 private:
  static constexpr unsigned kBits = 64;
  static constexpr unsigned kWords = kMaxProcesses / kBits;

  static std::uint64_t Bit(unsigned process) { return std::uint64_t{1} << process % kBits; }
  std::atomic<std::uint64_t>& Word(unsigned process) { return words_[process / kBits]; }

  std::atomic<std::uint64_t> words_[kWords];
};

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_OBJECTS_PROCESS_SET_H_
