// Drains one pipe of a child into a stream: the body of a thread, or the sink of a thread that serves all pipes of the
// child.
//
// As a thread body it ends with the pipe. But a descendant of the child may hold the pipe's other end for any length of
// time; so the owner calls Finish once the child itself has ended. All that the child wrote is in the pipe then, and
// the reader takes what is there at that moment and stops, even if a descendant still writes.
#ifndef KESTRUN_RUNTIME_PROCESS_OUTPUT_READER_H_
#define KESTRUN_RUNTIME_PROCESS_OUTPUT_READER_H_

#include "platform/child_io.h"
#include "runtime/base/critical_section.h"
#include "runtime/base/delegate.h"
#include "runtime/base/rc_ptr.h"
#include "runtime/files/memory_stream.h"
#include "runtime/files/stream.h"
#include "runtime/process/output_gate.h"
#include "runtime/threads/thread.h"

namespace kestrun {

// Holds its two streams for as long as it lives; the destination may be null, which drops the bytes. The reader
// thread, or the one that serves it, is the only one to touch the streams. A StreamException of the destination drops
// all that follows, so that the child never stalls on a full pipe.
class OutputReader : public Functor0<void>::_DelegateBase, public platform::OutputSink {
 public:
  // `gate` may be null; it is told of what goes to a MemoryStream.
  OutputReader(const rc_ptr<Stream>& pipe, const rc_ptr<Stream>& destination, const rc_ptr<OutputGate>& gate);

  // The body of the reader thread.
  void operator()() override;

  // In place of a thread body.
  char* MakeRoom(DWORD count) override;
  void Take(const char* bytes, DWORD count) override;

  // When the child has ended: waits until the reader has taken what the pipe holds. `thread` is the one that runs this
  // reader; without one the caller does it.
  void Finish(Thread* thread);

 private:
  static constexpr u32 kBufferSize = 8192;

  bool ReadUntilFinish();
  void ReadWhatIsThere();
  void WriteOn(const char* bytes, DWORD count);
  bool BeginRead();
  void EndRead();
  void InterruptRead(Thread& thread);

  rc_ptr<Stream> pipe_;
  rc_ptr<Stream> destination_;
  const rc_ptr<OutputGate> gate_;
  // The destination if it is a MemoryStream, into which bytes can be read without a copy, and the room in it that was
  // given to the present read.
  MemoryStream* memory_;
  char* room_ = nullptr;

  CriticalSection lock_;
  bool isReading_ = false;      // guarded by lock_
  bool childHasEnded_ = false;  // guarded by lock_
};

}  // namespace kestrun

#endif  // KESTRUN_RUNTIME_PROCESS_OUTPUT_READER_H_
