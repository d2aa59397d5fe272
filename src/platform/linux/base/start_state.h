// The signal state with which this process was started and which the layer has changed: a program that this process
// becomes must find it unchanged.
#ifndef KESTRUN_PLATFORM_LINUX_BASE_START_STATE_H_
#define KESTRUN_PLATFORM_LINUX_BASE_START_STATE_H_

namespace kestrun::platform {

// Ignores a signal from now on. Always true, so that a static initialiser can call it.
bool IgnoreSignal(int signal);

// Puts back the dispositions of the signals given to IgnoreSignal, and the signal mask of the start. Handlers go with
// exec by themselves.
void RestoreSignals();

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_BASE_START_STATE_H_
