#include "platform/linux/base/start_state.h"

#include <signal.h>

#include <cstddef>

namespace kestrun::platform {

namespace {

struct IgnoredSignal {
  int number;
  sighandler_t before;
};

// Filled by static initialisers, whose order is not defined. Plain arrays are zero before the first of them runs.
constexpr std::size_t kMostIgnored = 8;
IgnoredSignal ignored[kMostIgnored];
std::size_t ignoredCount;

sigset_t ReadMask() {
  sigset_t mask;
  sigprocmask(SIG_SETMASK, nullptr, &mask);
  return mask;
}

// Read by a static initialiser, before any code of the layer changes the mask.
const sigset_t maskAtStart = ReadMask();

}  // namespace

bool IgnoreSignal(int signal) {
  const sighandler_t before = ::signal(signal, SIG_IGN);
  if (ignoredCount < kMostIgnored) ignored[ignoredCount++] = {signal, before};
  return true;
}

void RestoreSignals() {
  for (std::size_t i = 0; i < ignoredCount; ++i) ::signal(ignored[i].number, ignored[i].before);
  sigprocmask(SIG_SETMASK, &maskAtStart, nullptr);
}

}  // namespace kestrun::platform
