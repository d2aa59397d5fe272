// The stacks on which threads handle fatal signals, so that a thread that overflows its own stack can still be
// reported.
#ifndef KESTRUN_PLATFORM_LINUX_BASE_SIGNAL_STACK_H_
#define KESTRUN_PLATFORM_LINUX_BASE_SIGNAL_STACK_H_

namespace kestrun::platform {

// From now on every thread of the layer that starts gets such a stack; the calling thread has one when this returns.
void NeedSignalStacks();

// Gives the calling thread its stack, which goes with the thread, if such stacks are needed. Every thread of the layer
// calls this first.
void PrepareSignalStack();

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_BASE_SIGNAL_STACK_H_
