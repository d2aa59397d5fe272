// Waits for a condition that no event announces.
#ifndef KESTRUN_TESTS_SUPPORT_BECOMES_TRUE_H_
#define KESTRUN_TESTS_SUPPORT_BECOMES_TRUE_H_

#include <chrono>
#include <thread>

namespace kestrun::test {

// Checks the condition every few milliseconds; false if it does not hold within the limit. Machines can be slow.
template <class Condition>
bool BecomesTrue(const Condition& condition, unsigned limitMs = 60000) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(limitMs);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

}  // namespace kestrun::test

#endif  // KESTRUN_TESTS_SUPPORT_BECOMES_TRUE_H_
