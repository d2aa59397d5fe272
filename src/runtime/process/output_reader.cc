#include "runtime/process/output_reader.h"

#include <algorithm>

namespace kestrun {

OutputReader::OutputReader(const rc_ptr<Stream>& pipe, const rc_ptr<Stream>& destination,
                           const rc_ptr<OutputGate>& gate)
    : pipe_(pipe), destination_(destination), gate_(gate), memory_(dynamic_cast<MemoryStream*>(destination.Get())) {}

void OutputReader::operator()() {
  if (ReadUntilFinish()) ReadWhatIsThere();
}

// False at the end of the pipe, true when the child has ended before it.
bool OutputReader::ReadUntilFinish() {
  char buffer[kBufferSize];
  while (BeginRead()) {
    u32 count = 0;
    try {
      count = pipe_->Read(buffer, kBufferSize);
    } catch (const StreamException&) {
    }
    EndRead();
    if (count == 0) break;
    Take(buffer, count);
  }
  const Lock lock(lock_);
  return childHasEnded_;
}

// Not "until there is nothing more": a descendant that keeps writing would never let that happen.
void OutputReader::ReadWhatIsThere() try {
  char buffer[kBufferSize];
  for (u32 left = pipe_->GetAvailable(); left > 0;) {
    const u32 count = pipe_->Read(buffer, std::min(left, kBufferSize));
    Take(buffer, count);
    left -= std::min(left, count);
  }
} catch (const StreamException&) {
}

bool OutputReader::BeginRead() {
  const Lock lock(lock_);
  isReading_ = !childHasEnded_;
  return isReading_;
}

void OutputReader::EndRead() {
  const Lock lock(lock_);
  isReading_ = false;
}

char* OutputReader::MakeRoom(DWORD count) {
  if (!destination_ || memory_ == nullptr) return nullptr;
  room_ = reinterpret_cast<char*>(memory_->MakeRoom(count));
  return room_;
}

void OutputReader::Take(const char* bytes, DWORD count) {
  if (!destination_) return;
  if (memory_ == nullptr) {
    WriteOn(bytes, count);
    return;
  }
  if (bytes == room_) {
    memory_->Extend(count);
  } else if (memory_->Append(bytes, count) == 0) {
    destination_.Reset();
    return;
  }
  room_ = nullptr;
  if (gate_) gate_->OnOutput(*memory_);
}

void OutputReader::WriteOn(const char* bytes, DWORD count) {
  try {
    destination_->Write(bytes, count);
  } catch (const StreamException&) {
    destination_.Reset();
  }
}

void OutputReader::Finish(Thread* thread) {
  if (thread == nullptr) return ReadWhatIsThere();
  {
    const Lock lock(lock_);
    childHasEnded_ = true;
  }
  // Mostly the pipe ends with the child, and the first wait is all. The interruption misses a reader that is between
  // its announcement and the system's read, so it is repeated.
  constexpr u32 kLongestPauseMs = 64;
  for (u32 pauseMs = 1; !thread->Wait(pauseMs); pauseMs = std::min(pauseMs * 2, kLongestPauseMs))
    InterruptRead(*thread);
}

// Under the lock, so that the reader cannot leave its read and be hit in the middle of something else.
void OutputReader::InterruptRead(Thread& thread) {
  const Lock lock(lock_);
  if (isReading_) platform::InterruptRead(thread.GetHandle());
}

}  // namespace kestrun
