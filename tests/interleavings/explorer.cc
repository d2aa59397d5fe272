#include "explorer.h"

#include <chrono>

namespace kestrun::interleavings {

namespace {

constexpr u32 kWarmUpRuns = 300;

class Clock {
 public:
  explicit Clock(u64 limitMs) : end_(std::chrono::steady_clock::now() + std::chrono::milliseconds(limitMs)) {}
  bool IsOver() const { return std::chrono::steady_clock::now() >= end_; }

 private:
  const std::chrono::steady_clock::time_point end_;
};

u64 NextRandom(u64& state) {
  state ^= state << 13;
  state ^= state >> 7;
  state ^= state << 17;
  return state;
}

bool IsDisturbance(const World::Choice& choice) {
  return choice.kind == World::Choice::Kind::kKill || choice.kind == World::Choice::Kind::kStop ||
         choice.kind == World::Choice::Kind::kTimeOut;
}

}  // namespace

void Explorer::Begin() {
  world_.Reset();
  left_ = budget_;
  taken_.clear();
  scenario_.Start(world_);
  world_.Settle();
}

bool Explorer::Do(const std::vector<World::Choice>& choices, const World::Choice& choice) {
  taken_.push_back(choice);
  world_.Spend(choices, choice, left_);
  world_.Do(choice, left_);
  scenario_.Check(world_);
  return world_.GetFailure().empty();
}

// Repeats the path, and goes on along the first choices up to the end or to a state that is known.
void Explorer::RunOnce() {
  Begin();
  bool isWell = true;
  for (const Node& node : path_) {
    if (isWell) isWell = Do(node.choices, node.choices[node.next]);
  }
  while (isWell) {
    Node node;
    world_.GetChoices(left_, node.choices);
    if (node.choices.empty()) break;
    if (node.choices.size() > 1) {
      if (!seen_.insert(world_.Hash(left_)).second) return;
    }
    path_.push_back(std::move(node));
    isWell = Do(path_.back().choices, path_.back().choices[0]);
  }
  EndOfRun();
}

void Explorer::EndOfRun() {
  if (world_.GetFailure().empty()) scenario_.CheckEnd(world_);
  ++outcome_.ends;
}

bool Explorer::Backtrack() {
  while (!path_.empty() && ++path_.back().next == path_.back().choices.size()) path_.pop_back();
  return !path_.empty();
}

void Explorer::Restart() {
  path_.clear();
  seen_.clear();
}

// Runs the same choices once more, and names each.
void Explorer::Report() {
  const std::string failure = world_.GetFailure();
  const std::vector<World::Choice> choices = taken_;
  std::string text = failure + ", after:\n";
  Begin();
  std::vector<World::Choice> possible;
  for (const World::Choice& choice : choices) {
    text += "  " + world_.Describe(choice) + "\n";
    world_.GetChoices(left_, possible);
    Do(possible, choice);
  }
  outcome_.failure = text;
}

// Finds the words of memory that are shared. A run that finds one has not stopped at all its points.
void Explorer::WarmUp(u64& random) {
  outcome_ = {};
  world_.ForgetMemory();
  for (u32 i = 0; i < kWarmUpRuns && outcome_.failure.empty(); ++i) WanderOnce(random);
  Restart();
}

Outcome Explorer::Explore(u64 limitMs) {
  u64 random = 88172645463325252;
  WarmUp(random);
  const Clock clock(limitMs);
  while (outcome_.failure.empty() && !clock.IsOver()) {
    RunOnce();
    ++outcome_.runs;
    outcome_.steps += world_.GetSteps();
    if (world_.TakeNewShared()) {
      Restart();
      continue;
    }
    if (!world_.GetFailure().empty()) Report();
    if (!Backtrack()) {
      outcome_.isComplete = outcome_.failure.empty();
      break;
    }
  }
  outcome_.states = seen_.size();
  return outcome_;
}

void Explorer::WanderOnce(u64& random) {
  Begin();
  std::vector<World::Choice> choices;
  std::vector<World::Choice> usual;
  bool isWell = true;
  u32 last = 0;
  while (isWell) {
    world_.GetChoices(left_, choices);
    if (choices.empty()) break;
    usual.clear();
    for (const auto& choice : choices) {
      if (!IsDisturbance(choice)) usual.push_back(choice);
    }
    const bool disturbs = usual.empty() || NextRandom(random) % 64 == 0;
    const auto& from = disturbs ? choices : usual;
    // Mostly the same choice again, so that one thread runs for a while as threads do; now and then another one.
    if (NextRandom(random) % 8 == 0) last = static_cast<u32>(NextRandom(random) >> 32);
    isWell = Do(choices, from[last % from.size()]);
  }
  EndOfRun();
  ++outcome_.runs;
  outcome_.steps += world_.GetSteps();
  if (!world_.TakeNewShared() && !world_.GetFailure().empty()) Report();
}

Outcome Explorer::Wander(u64 limitMs, u64 seed) {
  u64 random = seed * 2 + 1;
  WarmUp(random);
  const Clock clock(limitMs);
  while (outcome_.failure.empty() && !clock.IsOver()) WanderOnce(random);
  return outcome_;
}

}  // namespace kestrun::interleavings
