#include "platform/child_io.h"

namespace kestrun::platform {

// A child of this layer inherits its standard streams alone, whatever the start-up data say.
struct OnlyStandardHandles::State {
  STARTUPINFOA startupInfo;
};

OnlyStandardHandles::OnlyStandardHandles(const STARTUPINFOA& startupInfo)
    : state_(std::make_unique<State>(State{startupInfo})) {}

OnlyStandardHandles::~OnlyStandardHandles() = default;

STARTUPINFOA* OnlyStandardHandles::GetStartupInfo() {
  return &state_->startupInfo;
}

DWORD OnlyStandardHandles::GetCreationFlags() const {
  return 0;
}

// A read end that was fed by a child comes to its end with that child.
void InterruptRead(HANDLE /*thread*/) {}

}  // namespace kestrun::platform
