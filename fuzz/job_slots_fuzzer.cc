// Lets jobs come, lend, share pipes, run beside the limit and leave, in any order. No job is granted twice or after it
// has left, a job that waits while a slot is free is granted, and in the end every slot is free.
//
// Input: a byte for the number of slots, then steps of a byte each with the numbers that they need.
#include <map>
#include <set>

#include "fuzz_input.h"
#include "master/job_slots.h"
#include "protocol/slot_request.h"

namespace kestrun::fuzz {
namespace {

u32 ParentByTens(u32 processId) {
  return processId / 10;
}

class Jobs {
 public:
  explicit Jobs(u32 count) : count_(count), slots_(count, ParentByTens) {
    slots_.SetListener([this](JobSlots::Ticket ticket) { Grant(ticket); });
  }

  void Step(Input& input) {
    switch (input.Byte() % 4) {
      case 0:
      case 1:
        return Come(input);
      case 2:
        return Leave(input.Byte());
      default:
        LetOneMoreRun();
    }
    FUZZ_REQUIRE(slots_.CountRunning() == granted_.size());
    FUZZ_REQUIRE(slots_.CountWaiting() == present_.size() - granted_.size());
  }

  void End() {
    while (!present_.empty()) Leave(0);
    for (u32 i = 0; i < count_; ++i) FUZZ_REQUIRE(slots_.Ask(++last_, 1000003 + 7 * i));
    FUZZ_REQUIRE(!slots_.Ask(++last_, 2000003));
  }

 private:
  void Come(Input& input) {
    const u32 process = 1 + input.Byte() * (input.Byte() % 2 == 0 ? 1u : 10u);
    const u64 inputPipe = input.Byte() % 4;
    const JobSlots::Ticket ticket = ++last_;
    present_.insert(ticket);
    if (slots_.Ask(ticket, process, inputPipe, input.Byte() % 4)) Grant(ticket);
  }
  void Leave(u32 which) {
    if (present_.empty()) return;
    const auto leaving = std::next(present_.begin(), static_cast<int>(which % present_.size()));
    const JobSlots::Ticket ticket = *leaving;
    present_.erase(leaving);
    granted_.erase(ticket);
    slots_.Leave(ticket);
  }
  void LetOneMoreRun() {
    u64 generation = 0;
    slots_.GetRunning(generation);
    const bool isWaiting = slots_.CountWaiting() > 0;
    FUZZ_REQUIRE(slots_.GrantBeyond(generation) == isWaiting);
  }
  void Grant(JobSlots::Ticket ticket) {
    FUZZ_REQUIRE(present_.contains(ticket));
    FUZZ_REQUIRE(granted_.insert(ticket).second);
  }

  const u32 count_;
  JobSlots slots_;
  JobSlots::Ticket last_ = 0;
  std::set<JobSlots::Ticket> present_;
  std::set<JobSlots::Ticket> granted_;
};

}  // namespace
}  // namespace kestrun::fuzz

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  using namespace kestrun;
  SlotRequestHeader header;
  SlotTexts texts;
  ReadSlotRequest(reinterpret_cast<const char*>(data), size, header, texts);
  fuzz::Input input(data, size);
  fuzz::Jobs jobs(1 + input.Byte() % 4);
  while (!input.IsEmpty()) jobs.Step(input);
  jobs.End();
  return 0;
}
