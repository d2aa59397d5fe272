#include "dorn/line_relay.h"

#include <cstdio>

#include "runtime/base/delegate.h"

namespace kestrun::dorn {

namespace {

// Owns what the thread works on, since nothing else waits for it.
class Copier : public Functor0<void>::_DelegateBase {
 public:
  explicit Copier(rc_ptr<Stream> from) : from_(std::move(from)) {}

  void operator()() override {
    char buffer[4096];
    try {
      while (const u32 count = from_->Read(buffer, sizeof buffer)) {
        std::fwrite(buffer, 1, count, stderr);
        std::fflush(stderr);
      }
    } catch (const StreamException&) {
      // The end of the pipe.
    }
  }

 private:
  const rc_ptr<Stream> from_;
};

}  // namespace

void LineRelay::Start(const rc_ptr<Stream>& from) {
  if (!from) return;
  thread_ = new Thread("Master's errors");
  thread_->Start(rc_ptr<Functor0<void>::_DelegateBase>(new Copier(from)));
}

void LineRelay::WaitForEnd(u32 limitMs) {
  if (thread_) thread_->Wait(limitMs);
}

}  // namespace kestrun::dorn
