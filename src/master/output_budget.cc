#include "master/output_budget.h"

#include <chrono>
#include <limits>

namespace kestrun {

void OutputBudget::Lift() {
  const std::lock_guard lock(lock_);
  limit_ = std::numeric_limits<u64>::max();
  changed_.notify_all();
}

bool OutputBudget::IsExceeded() {
  const std::lock_guard lock(lock_);
  return sum_ > limit_;
}

u64 OutputBudget::GetSum() {
  const std::lock_guard lock(lock_);
  return sum_;
}

void OutputBudget::Account::SetCollected(u32 stream, u64 bytes) {
  const std::lock_guard lock(budget_->lock_);
  budget_->sum_ = budget_->sum_ - collected_[stream] + bytes;
  // All are woken: the sum is common, and each tool waits for its own client besides.
  if (bytes < collected_[stream]) budget_->changed_.notify_all();
  collected_[stream] = bytes;
}

void OutputBudget::Account::AddSent(u64 bytes) {
  const std::lock_guard lock(budget_->lock_);
  budget_->sum_ += bytes;
  sent_ += bytes;
}

void OutputBudget::Account::RemoveSent(u64 bytes) {
  const std::lock_guard lock(budget_->lock_);
  budget_->sum_ -= bytes;
  sent_ -= bytes;
  budget_->changed_.notify_all();
}

bool OutputBudget::Account::MustWait() {
  const std::lock_guard lock(budget_->lock_);
  return MustWaitLocked();
}

void OutputBudget::Account::AwaitRoom(u32 limitMs) {
  std::unique_lock lock(budget_->lock_);
  budget_->changed_.wait_for(lock, std::chrono::milliseconds(limitMs), [this] { return !MustWaitLocked(); });
}

bool OutputBudget::Account::MustWaitLocked() const {
  return budget_->sum_ > budget_->limit_ && sent_ > kFreeBytes;
}

}  // namespace kestrun
