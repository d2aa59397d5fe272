#ifndef KESTRUN_RUNTIME_PROCESS_OUTPUT_GATE_H_
#define KESTRUN_RUNTIME_PROCESS_OUTPUT_GATE_H_

#include "runtime/base/rc_ptr.h"
#include "runtime/files/memory_stream.h"

namespace kestrun {

// Is told of a child's output as it comes, so that the owner can slow the child down, or pass output on before the
// child's end.
//
// Shared by the readers of one child, which may be two threads; each reader calls it for its own stream only.
class OutputGate : public rc_base {
 public:
  // `collected` has grown. What it holds may be taken out. The next read waits for the return, and a child that goes on
  // writing then waits for its pipe; while one thread serves both outputs of a child, so does the end of the child.
  virtual void OnOutput(MemoryStream& collected) = 0;
};

}  // namespace kestrun

#endif  // KESTRUN_RUNTIME_PROCESS_OUTPUT_GATE_H_
