#include "platform/child_io.h"

namespace kestrun::platform {

// A bit that none of the creation flags of process_api.h has.
const DWORD kInheritDescriptors = 0x200000;

// Nothing needs to be arranged here: a child of this layer inherits no descriptors but its standard streams, and a
// child that was not resumed ends with this process even if it is in no job yet.
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

// Not needed: PipeReadEnd ends a read from a child's pipe when that child ends (pipe.h).
void InterruptRead(HANDLE /*thread*/) {}

}  // namespace kestrun::platform
