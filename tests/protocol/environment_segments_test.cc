#include "protocol/environment_segments.h"

#include <gtest/gtest.h>

#include "protocol/protocol.h"

namespace kestrun {
namespace {

rc_ptr<Message> Request(const Environment& environment) {
  rc_ptr<Message> request = new Message(MSG_BUILD_REQUEST, kStubService, kMasterService);
  request->AddString(SEG_TOOL, "tool");
  for (const auto& variable : MakeEnvironmentSegments(environment)) request->AddSegment(variable.Get());
  return request;
}

TEST(EnvironmentSegments, GiveTheEnvironmentBackAndTellItFromEveryOther) {
  const Environment environments[] = {
      {}, {{"A", ""}}, {{"", "a"}}, {{"A", "1"}}, {{"A", "12"}}, {{"AB", "1"}}, {{"A", "1"}, {"B", "2"}}};
  for (const Environment& sent : environments) {
    EXPECT_EQ(ReadEnvironment(*Request(sent)), sent);
    for (const Environment& other : environments) EXPECT_EQ(HasEnvironment(*Request(sent), other), sent == other);
  }
}

TEST(EnvironmentSegments, AreTheSameOnlyWhereEachVariableIs) {
  const auto variables = MakeEnvironmentSegments({{"A", "1"}, {"B", "2"}});
  const auto requestWith = [&](std::initializer_list<std::size_t> which) {
    rc_ptr<Message> request = Request({});
    for (const std::size_t i : which) request->AddSegment(variables[i].Get());
    return request;
  };
  const rc_ptr<Message> both = requestWith({0, 1});
  EXPECT_TRUE(ShareEnvironment(*both, *requestWith({0, 1})));
  EXPECT_FALSE(ShareEnvironment(*both, *requestWith({0})));
  EXPECT_FALSE(ShareEnvironment(*both, *requestWith({0, 1, 1})));
  EXPECT_FALSE(ShareEnvironment(*both, *requestWith({0, 0})));
  const rc_ptr<Message> other = requestWith({0});
  other->AddString(SEG_TOOL, "no variable");
  EXPECT_FALSE(ShareEnvironment(*both, *other));
  EXPECT_FALSE(ShareEnvironment(*other, *both));
}

}  // namespace
}  // namespace kestrun
