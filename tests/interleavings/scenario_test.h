// Runs a scenario in a test, for as long as KESTRUN_EXPLORE_SECONDS says (2 s unless it is set), and prints what was
// seen.
#ifndef KESTRUN_TESTS_INTERLEAVINGS_SCENARIO_TEST_H_
#define KESTRUN_TESTS_INTERLEAVINGS_SCENARIO_TEST_H_

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <iostream>

#include "arena.h"
#include "explorer.h"

namespace kestrun::interleavings {

inline u64 ExploreMs() {
  const char* const seconds = std::getenv("KESTRUN_EXPLORE_SECONDS");
  return seconds != nullptr ? std::strtoull(seconds, nullptr, 10) * 1000 : 2000;
}

inline void Print(const Outcome& outcome, const std::string& what) {
  std::cout << outcome.states << " states, " << outcome.steps << " steps in " << outcome.runs << " runs, "
            << outcome.ends << " of them to their end; " << what << std::endl;
}

// Tries every order without a switch away from a thread that could go on, then every order with one such switch, and so
// on: most faults show after few switches. False if a fault was found.
inline bool ExpectSoundWithFewSwitches(Scenario& scenario, World::Budget budget, u64 limitMs) {
  const auto start = std::chrono::steady_clock::now();
  for (budget.switches = 0;; ++budget.switches) {
    const auto passed = std::chrono::steady_clock::now() - start;
    const u64 passedMs = static_cast<u64>(std::chrono::duration_cast<std::chrono::milliseconds>(passed).count());
    if (passedMs >= limitMs) return true;
    const Outcome outcome = Explorer(scenario, budget).Explore(limitMs - passedMs);
    const std::string bound = " orders with " + std::to_string(budget.switches) + " switches";
    Print(outcome, (outcome.isComplete ? "all" : "not all") + bound);
    EXPECT_GT(outcome.ends, 0u);
    EXPECT_EQ(outcome.failure.substr(0, outcome.failure.find('\n')), "") << outcome.failure;
    if (!outcome.isComplete) return outcome.failure.empty();
  }
}

// Spends half of the time on orders with few switches, and half on all orders.
inline void ExpectSound(Scenario& scenario, const World::Budget& budget) {
  if (!ExpectSoundWithFewSwitches(scenario, budget, ExploreMs() / 2)) return;
  const Outcome outcome = Explorer(scenario, budget).Explore(ExploreMs() / 2);
  Print(outcome, outcome.isComplete ? "all orders" : "not all orders");
  if (!outcome.failure.empty()) FAIL() << outcome.failure;
}

// Tries all orders without a limit of time, for a scenario that has few of them.
inline void ExpectSoundInEveryOrder(Scenario& scenario, const World::Budget& budget) {
  const Outcome outcome = Explorer(scenario, budget).Explore(kNoLimit);
  Print(outcome, "all orders");
  EXPECT_TRUE(outcome.isComplete);
  if (!outcome.failure.empty()) FAIL() << outcome.failure;
}

inline void ExpectSoundAtRandom(Scenario& scenario, const World::Budget& budget) {
  const char* const seed = std::getenv("KESTRUN_SEED");
  const u64 start = seed != nullptr ? std::strtoull(seed, nullptr, 10) : 1;
  const Outcome outcome = Explorer(scenario, budget).Wander(ExploreMs(), start);
  Print(outcome, "random orders");
  EXPECT_GT(outcome.ends, 0u);
  if (!outcome.failure.empty()) FAIL() << "KESTRUN_SEED=" << start << "\n" << outcome.failure;
}

}  // namespace kestrun::interleavings

#endif  // KESTRUN_TESTS_INTERLEAVINGS_SCENARIO_TEST_H_
