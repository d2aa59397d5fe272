#include "runtime/base/delegate.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>

namespace kestrun {
namespace {

// Counts its destructions.
class Counted : public rc_base {
 public:
  explicit Counted(std::atomic<int>* ends) : ends_(ends) {}
  ~Counted() override { ++*ends_; }

 private:
  std::atomic<int>* ends_;
};

TEST(RcPtr, CountsItsOwners) {
  std::atomic<int> ends{0};
  rc_ptr<Counted> first(new Counted(&ends));
  rc_ptr<rc_base> second = first;
  EXPECT_EQ(first->GetRefCount(), 2u);
  rc_ptr<Counted>& same = first;
  first = same;
  EXPECT_EQ(first->GetRefCount(), 2u);
  rc_ptr<Counted> moved(std::move(first));
  EXPECT_FALSE(first);
  EXPECT_EQ(moved->GetRefCount(), 2u);
  second.Reset();
  EXPECT_EQ(ends, 0);
  moved = rc_ptr<Counted>();
  EXPECT_EQ(ends, 1);
}

int Twice(int value) {
  return 2 * value;
}

struct Adder {
  int Add(int left, int right) { return sum += left + right; }
  void See(rc_ptr<Counted> object) { seen = object->GetRefCount(); }
  void Throw() { throw std::string("from the target"); }
  int sum = 0;
  u32 seen = 0;
};

TEST(Delegate, CallsFunctionsMethodsAndClosures) {
  Adder adder;
  Functor1<int, int>::Type function = MakeDelegate(&Twice);
  Functor2<int, int, int>::Type method = MakeDelegate(&Adder::Add, &adder);
  EXPECT_EQ(function(21), 42);
  EXPECT_EQ(method(1, 2), 3);
  Functor0<int>::Type bound = MakeClosure(method.Get(), 3, 4);
  EXPECT_EQ(bound(), 10);
  EXPECT_EQ(bound(), 17);
}

TEST(Delegate, ClosureHoldsItsArgumentAndTheTargetItsOwnReference) {
  std::atomic<int> ends{0};
  Adder adder;
  Functor0<void>::Type closure;
  {
    rc_ptr<Counted> object(new Counted(&ends));
    closure = MakeClosure(MakeDelegate(&Adder::See, &adder), object);
  }
  EXPECT_EQ(ends, 0);
  closure();
  EXPECT_GE(adder.seen, 2u);
  closure.Reset();
  EXPECT_EQ(ends, 1);
}

}  // namespace
}  // namespace kestrun
