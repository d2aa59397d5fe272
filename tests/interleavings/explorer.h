// Tries the orders in which the steps of a scenario can come, one after the other.
//
// A run starts from the beginning, repeats the choices that lead to the point of interest, and goes on from there. A
// state that was seen before is not gone on from: two runs are in one state if every object, the shared memory and the
// time are the same and every thread has seen the same answers, of which all that it does is a function. States are
// told apart by 64 bits.
#ifndef KESTRUN_TESTS_INTERLEAVINGS_EXPLORER_H_
#define KESTRUN_TESTS_INTERLEAVINGS_EXPLORER_H_

#include <string>
#include <unordered_set>
#include <vector>

#include "world.h"

namespace kestrun::interleavings {

class Scenario {
 public:
  virtual ~Scenario() = default;
  // Fills the world, which is empty.
  virtual void Start(World& world) = 0;
  // After each step, and at the end of a run. Both report by World::Fail.
  virtual void Check(World&) {}
  virtual void CheckEnd(World&) {}
};

struct Outcome {
  u64 states = 0;
  u64 steps = 0;  // with those that were repeated to come back to a state
  u64 runs = 0;
  u64 ends = 0;             // runs that came to their end
  bool isComplete = false;  // every order was tried
  std::string failure;      // with the steps that lead there; empty if there was none
};

class Explorer {
 public:
  Explorer(Scenario& scenario, const World::Budget& budget) : scenario_(scenario), budget_(budget) {}

  // Every order, or as far as so many milliseconds reach.
  Outcome Explore(u64 limitMs);
  // Runs of random choices.
  Outcome Wander(u64 limitMs, u64 seed);

 private:
  struct Node {
    std::vector<World::Choice> choices;
    std::size_t next = 0;
  };

  void WarmUp(u64& random);
  void Begin();
  bool Do(const std::vector<World::Choice>& choices, const World::Choice& choice);
  void RunOnce();
  bool Backtrack();
  void Restart();
  void Report();
  void EndOfRun();
  void WanderOnce(u64& random);

  Scenario& scenario_;
  const World::Budget budget_;
  World& world_ = World::Get();
  World::Budget left_;
  std::vector<Node> path_;
  std::vector<World::Choice> taken_;
  std::unordered_set<u64> seen_;
  Outcome outcome_;
};

}  // namespace kestrun::interleavings

#endif  // KESTRUN_TESTS_INTERLEAVINGS_EXPLORER_H_
