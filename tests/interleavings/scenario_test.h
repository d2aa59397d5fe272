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

// Every order with no switch from a thread that could go on, then with one, and so on while there is time: what goes
// wrong mostly does so after few of them.
inline void ExpectSound(Scenario& scenario, World::Budget budget) {
  const auto start = std::chrono::steady_clock::now();
  u64 states = 0;
  for (budget.switches = 0;; ++budget.switches) {
    const auto passed = std::chrono::steady_clock::now() - start;
    const u64 passedMs = static_cast<u64>(std::chrono::duration_cast<std::chrono::milliseconds>(passed).count());
    if (passedMs >= ExploreMs()) return;
    const Outcome outcome = Explorer(scenario, budget).Explore(ExploreMs() - passedMs);
    const std::string bound = " orders with " + std::to_string(budget.switches) + " switches";
    Print(outcome, (outcome.isComplete ? "all" : "not all") + bound);
    EXPECT_GT(outcome.ends, 0u);
    if (!outcome.failure.empty()) FAIL() << outcome.failure;
    // One switch more has led to nothing new: these were all orders that there are.
    if (!outcome.isComplete || outcome.states == states) return;
    states = outcome.states;
  }
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
