#include "transport/shared/introduction_turn.h"

#include <gtest/gtest.h>

#include <future>
#include <string>
#include <vector>

#include "ipc_ends.h"
#include "support/child.h"
#include "transport/shared/ipc_socket.h"

namespace kestrun {
namespace {

using test::Child;
using test::IpcEnds;
using test::kLongMs;

// Waits for a turn that is granted after so many vain attempts. Each query for the owner of the mutex gives the next
// one of the list; the last one stays.
bool Await(int vainWaits, std::vector<MutexOwner> owners, u32& holder) {
  std::size_t next = 0;
  return IntroductionTurn::Await([&] { return vainWaits-- == 0; },
                                 [&] { return owners[next + 1 < owners.size() ? next++ : next]; }, holder);
}

TEST(IntroductionTurn, IsWaitedForAsLongAsItPassesOn) {
  u32 holder = 0;
  const MutexOwner nobody{true, 0, 0};
  EXPECT_TRUE(Await(4, {{true, 1, 10}, {true, 2, 20}, {true, 2, 21}, nobody, nobody}, holder));
  EXPECT_FALSE(Await(2, {{true, 1, 10}, {true, 2, 20}, {true, 2, 20}}, holder));
  EXPECT_EQ(holder, 2u);
  EXPECT_FALSE(Await(1, {{}}, holder)) << "an owner that can't be known counts as the same one";
  EXPECT_EQ(holder, 0u);
}

class ConnectorsThatStandStill : public testing::TestWithParam<int> {};

TEST_P(ConnectorsThatStandStill, AreNamedAndTheNextOneGoesOn) {
  IpcEnds ends;
  ends.Listen();
  auto served = std::async(std::launch::async, [&ends] {
    while (ends.listener->GetState() == IpcSocket::State::kListening) ends.listener->Accept();
  });
  Child child = Child::Self("DyingConnector", {ends.name, std::to_string(GetParam())});
  ASSERT_EQ(child.ReadLine(), "done");
  const Mutex lock(IpcIntroduction::GetLockName(ends.name).c_str());
  const MutexOwner owner = GetMutexOwner(lock.GetHandle());
  const std::string name = owner.isKnown ? "process " + std::to_string(child.Pid()) : "another process";
  IpcSocket next;
  EXPECT_FALSE(next.Connect(ends.name, 50));
  EXPECT_EQ(next.GetState(), IpcSocket::State::kFailed);
  EXPECT_EQ(next.GetObstacle(), name + " keeps other clients from connecting to the master; let it go on, or end it");
  child.Kill();
  child.Wait();
  EXPECT_TRUE(next.Connect(ends.name, kLongMs));
  EXPECT_EQ(next.GetObstacle(), "");
  ends.listener->Close();
}

INSTANTIATE_TEST_SUITE_P(Steps, ConnectorsThatStandStill, testing::Values(1, 2, 3, 4, 5));

}  // namespace
}  // namespace kestrun
