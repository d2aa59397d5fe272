#include "app/stub_base.h"

#include <gtest/gtest.h>

#include "support/child.h"

namespace kestrun {
namespace {

class IdleStub : public StubBase {
 public:
  using StubBase::StubBase;
  int Run() override { return 0; }
  void Stop(const std::string&) override {}
};

// Words: the value of -id. Says the id that a stub has, and this process's own.
KESTRUN_CHILD(SaysItsId) {
  IniFile settings;
  Options options;
  options.id = words[0];
  test::Say(IdleStub(settings, options).GetId());
  test::Say(std::to_string(test::CurrentProcessId()));
  return 0;
}

std::string IdOf(const std::string& option, const std::string& variable) {
  test::ChildOptions options;
  options.environment["KESTRUN_ID"] = variable;
  test::Child child = test::Child::Self("SaysItsId", {option}, options);
  const std::string id = child.ReadLine();
  return id == child.ReadLine() ? "own" : id;
}

TEST(StubBase, TakesItsIdFromTheOptionThenTheVariableThenTheProcess) {
  EXPECT_EQ(IdOf("7", "9"), "7");
  EXPECT_EQ(IdOf("", "9"), "9");
  EXPECT_EQ(IdOf("", ""), "own");
  EXPECT_EQ(IdOf("", std::string(255, 'x')), std::string(255, 'x'));
  EXPECT_EQ(IdOf("", std::string(256, 'x')), "own");
}

}  // namespace
}  // namespace kestrun
