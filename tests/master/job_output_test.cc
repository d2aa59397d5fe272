#include "master/job_output.h"

#include <gtest/gtest.h>

#include <thread>

#include "job_test.h"

namespace kestrun {
namespace {

class JobOutputTest : public test::JobTest {
 protected:
  // Three blocks are less than a tool may be ahead of its client.
  static constexpr u32 kBlock = 300 * 1024;

  static void Write(JobOutput& output, MemoryStream& stream) {
    const std::string block(kBlock, 'x');
    stream.Append(block.data(), kBlock);
    output.OnOutput(stream);
  }

  const rc_ptr<OutputBudget> budget_ = new OutputBudget(2 * kBlock);
  const rc_ptr<BuildJob> job_ = Job(1, "p");
};

TEST_F(JobOutputTest, StaysWholeWithinTheBudgetAndCountsUntilItsLastMessageIsGone) {
  rc_ptr<JobOutput> output = new JobOutput(budget_, *job_, dispatcher_, false);
  Write(*output, output->GetStdout());
  Write(*output, output->GetStderr());
  EXPECT_EQ(budget_->GetSum(), 2 * kBlock);
  EXPECT_EQ(stub_->Count(), 0u);
  rc_ptr<MemoryStream> taken = output->TakeStdout();
  EXPECT_EQ(taken->GetSize(), kBlock);
  output.Reset();
  EXPECT_EQ(budget_->GetSum(), kBlock);
  taken.Reset();
  EXPECT_EQ(budget_->GetSum(), 0u);
}

TEST_F(JobOutputTest, GoesToItsClientInPartsOverTheBudget) {
  const rc_ptr<JobOutput> output = new JobOutput(budget_, *job_, dispatcher_, true);
  for (int i = 0; i < 3; ++i) Write(*output, output->GetStderr());
  EXPECT_EQ(test::TextOf(stub_->Next(), SEG_STDERR).size(), 3 * kBlock);
  EXPECT_EQ(budget_->GetSum(), 0u);
  Write(*output, output->GetStdout());
  // Output that is kept for the record does not count.
  const rc_ptr<MemoryStream> taken = output->TakeStdout();
  EXPECT_EQ(taken->GetSize(), kBlock);
  EXPECT_EQ(budget_->GetSum(), 0u);
}

TEST_F(JobOutputTest, IsDroppedOverTheBudgetWithoutAClient) {
  job_->clientAddress = Address(Address::kIpc, test::UniqueName());
  const rc_ptr<JobOutput> output = new JobOutput(budget_, *job_, dispatcher_, false);
  for (int i = 0; i < 10; ++i) Write(*output, output->GetStdout());
  EXPECT_LE(budget_->GetSum(), 2 * kBlock);
}

TEST(OutputBudget, WakesAToolThatWaitsOnceItsClientHasTakenEnough) {
  const rc_ptr<OutputBudget> budget = new OutputBudget(1);
  OutputBudget::Account account(budget);
  account.AddSent(2 * OutputBudget::kFreeBytes);
  const u32 start = GetTickCount();
  std::thread tool([&] { account.AwaitRoom(60000); });
  Sleep(50);  // until it waits
  account.RemoveSent(OutputBudget::kFreeBytes);
  tool.join();
  EXPECT_LT(GetTickCount() - start, 30000u);
}

}  // namespace
}  // namespace kestrun
