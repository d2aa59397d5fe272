#include "runtime/process/output_reader.h"

#include <algorithm>

namespace kestrun {

OutputReader::OutputReader(const rc_ptr<Stream>& pipe, const rc_ptr<Stream>& destination,
                           const rc_ptr<OutputGate>& gate)
    : pipe_(pipe), destination_(destination), gate_(gate), memory_(dynamic_cast<MemoryStream*>(destination.Get())) {}

void OutputReader::operator()() {
  if (ReadUntilFinish()) ReadWhatIsThere();
}

// Reads until the pipe's end (false) or until the child has ended (true).
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

// Reads what is in the pipe now. It does not read until the pipe is empty, because a descendant of the child may keep
// writing.
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
  // The bytes were read straight into the stream's memory; only its end has to be moved.
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
  // The pipe mostly ends with the child, and the first wait is enough. An interruption has no effect on a reader that
  // has announced its read (BeginRead) and not begun it yet, so it is repeated.
  constexpr u32 kLongestPauseMs = 64;
  for (u32 pauseMs = 1; !thread->Wait(pauseMs); pauseMs = std::min(pauseMs * 2, kLongestPauseMs))
    InterruptRead(*thread);
}

// Called under the lock, so that the reader cannot leave its read meanwhile and be interrupted in another call.
void OutputReader::InterruptRead(Thread& thread) {
  const Lock lock(lock_);
  if (isReading_) platform::InterruptRead(thread.GetHandle());
}

}  // namespace kestrun
