// A timeout of a Reactor that calls a delegate, once.
//
// The Reactor holds it until then; the delegate runs on the thread of the select loop.
#ifndef KESTRUN_MESSAGING_TIMER_H_
#define KESTRUN_MESSAGING_TIMER_H_

#include <utility>

#include "runtime/base/delegate.h"
#include "runtime/threads/reactor.h"

namespace kestrun {

class Timer : public Reactor::TimeoutHandler {
 public:
  explicit Timer(Functor0<void>::Type delegate) : delegate_(std::move(delegate)) {}

  void OnTimeout() override {
    if (delegate_) delegate_();
  }

 private:
  const Functor0<void>::Type delegate_;
};

}  // namespace kestrun

#endif  // KESTRUN_MESSAGING_TIMER_H_
