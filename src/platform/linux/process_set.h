// A set of places in the table of named objects, each of which stands for one process (object_table.h).
//
// Lies in memory that processes share; zeroed memory is the empty set. Any thread of any process may change it.
#ifndef KESTRUN_PLATFORM_LINUX_PROCESS_SET_H_
#define KESTRUN_PLATFORM_LINUX_PROCESS_SET_H_

#include <atomic>
#include <bit>
#include <cstdint>

namespace kestrun::platform {

constexpr unsigned kMaxProcesses = 4096;

class ProcessSet {
 public:
  void Add(unsigned place) { Word(place).fetch_or(Bit(place), std::memory_order_seq_cst); }
  void Remove(unsigned place) { Word(place).fetch_and(~Bit(place), std::memory_order_seq_cst); }
  bool Has(unsigned place) const { return (words_[place / kBits].load(std::memory_order_seq_cst) & Bit(place)) != 0; }

  bool IsEmpty() const {
    for (const auto& word : words_) {
      if (word.load(std::memory_order_seq_cst) != 0) return false;
    }
    return true;
  }

  void Clear() {
    for (auto& word : words_) {
      if (word.load(std::memory_order_relaxed) != 0) word.store(0, std::memory_order_seq_cst);
    }
  }

  // Removes what the other set has too; true if there was any.
  bool RemoveAll(const ProcessSet& others) {
    bool removed = false;
    for (unsigned i = 0; i < kWords; ++i) {
      const std::uint64_t common = words_[i].load(std::memory_order_relaxed) & others.words_[i];
      if (common == 0) continue;
      words_[i].fetch_and(~common, std::memory_order_seq_cst);
      removed = true;
    }
    return removed;
  }

  // True if the test says so of any place.
  template <class Test>
  bool Any(const Test& test) const {
    for (unsigned i = 0; i < kWords; ++i) {
      std::uint64_t word = words_[i].load(std::memory_order_seq_cst);
      for (; word != 0; word &= word - 1) {
        if (test(i * kBits + static_cast<unsigned>(std::countr_zero(word)))) return true;
      }
    }
    return false;
  }

 private:
  static constexpr unsigned kBits = 64;
  static constexpr unsigned kWords = kMaxProcesses / kBits;

  static std::uint64_t Bit(unsigned place) { return std::uint64_t{1} << place % kBits; }
  std::atomic<std::uint64_t>& Word(unsigned place) { return words_[place / kBits]; }

  std::atomic<std::uint64_t> words_[kWords];
};

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_PROCESS_SET_H_
