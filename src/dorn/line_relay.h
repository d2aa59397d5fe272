// Passes on what a master writes on its standard error stream.
#ifndef KESTRUN_DORN_LINE_RELAY_H_
#define KESTRUN_DORN_LINE_RELAY_H_

#include "runtime/base/rc_ptr.h"
#include "runtime/base/types.h"
#include "runtime/files/stream.h"
#include "runtime/threads/thread.h"

namespace kestrun::dorn {

// A master may outlive the dorn that started it. If it held dorn's own stream, a caller that reads dorn's standard
// error to its end would wait for the master as well. So the master gets a pipe to this object, which ends with this
// process.
//
// Threads: one that copies, from Start to the end of the pipe or of the process.
class LineRelay {
 public:
  // An empty stream is nothing to pass on.
  void Start(const rc_ptr<Stream>& from);
  // Waits until the pipe has ended and all is passed on.
  void WaitForEnd(u32 limitMs);

 private:
  rc_ptr<Thread> thread_;
};

}  // namespace kestrun::dorn

#endif  // KESTRUN_DORN_LINE_RELAY_H_
