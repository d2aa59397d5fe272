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

}  // namespace
}  // namespace kestrun
