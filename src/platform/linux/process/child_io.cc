#include "platform/child_io.h"

namespace kestrun::platform {

const DWORD kInheritDescriptors = 0x200000;

// A child of this layer inherits its standard streams alone, whatever the start-up data say, and one that is held back
// ends with its parent.
struct ChildStartup::State {
  STARTUPINFOA startupInfo;
};

ChildStartup::ChildStartup(const STARTUPINFOA& startupInfo, HANDLE /*job*/)
    : state_(std::make_unique<State>(State{startupInfo})) {}

ChildStartup::~ChildStartup() = default;

STARTUPINFOA* ChildStartup::GetStartupInfo() {
  return &state_->startupInfo;
}

DWORD ChildStartup::GetCreationFlags() const {
  return 0;
}

bool ChildStartup::PutsInJob() const {
  return false;
}

// A read end that was fed by a child comes to its end with that child.
void InterruptRead(HANDLE /*thread*/) {}

}  // namespace kestrun::platform
